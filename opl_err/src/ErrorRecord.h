// For code that may not allocate, as a signal handler.
#ifndef OPL_ERR_ERROR_RECORD_H
#define OPL_ERR_ERROR_RECORD_H

namespace opl {

// Whether the calling thread has an error record already, so that OPL_ErrSet only writes into it.
bool HasErrorRecord();

}  // namespace opl

#endif
