// What state an object is in, in words and facts.
#ifndef QVOPL_TOOL_STATES_H
#define QVOPL_TOOL_STATES_H

#include "tools/qvopl/Objects.h"

namespace qvopl {

// Looks at the object of the entry and fills in the rest. False for one that is gone meanwhile.
bool FillIn(View* view, Object* object);

// Parts of that. Sets:
bool FillInSet(View* view, Object* object);
void DescribeManagement(View* view, Object* object);
void DescribeMutex(View* view, Object* object);
void DescribeRWLock(View* view, Object* object);
// Files, and what they name:
bool FillInSegment(View* view, Object* object);
bool FillInEvent(View* view, Object* object);
bool FillInLockFile(View* view, Object* object);
bool FillInSocket(View* view, Object* object);
bool FillInServer(View* view, Object* object);
bool FillInRegisteredSet(View* view, Object* object);
bool FillInRegisteredQueue(View* view, Object* object);

void SetState(Object* object, Condition condition, std::string state);
void AddFact(Object* object, const char* name, std::variant<int64_t, bool, std::string> value);

// What the reading of the object's file said, where it was not kDone. False when the file is gone.
bool SetUnread(Object* object, Reading reading);

// Whether the object is the file owner's and may be described; says so where it is not.
bool IsOwned(Object* object, const Permissions& permissions);

}  // namespace qvopl

#endif
