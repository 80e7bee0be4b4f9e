/* Names the instance for a process that loads this library into its global scope. */
const char* OPL_InitInstanceStringSetCallback(void);

const char* OPL_InitInstanceStringSetCallback(void) { return "named.by.a.library"; }
