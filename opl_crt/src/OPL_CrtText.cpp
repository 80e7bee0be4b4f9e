// Text functions of the runtime in their re-entrant forms.
#include <cstdlib>
#include <cstring>

#include "OPL_Crt.h"

int32_t OPL_CrtStrCaseCmp(const char* a, const char* b) { return ::strcasecmp(a, b); }

int32_t OPL_CrtStrNCaseCmp(const char* a, const char* b, uint32_t length) {
  return ::strncasecmp(a, b, length);
}

char* OPL_CrtStrTok(char* text, const char* delimiters, char** save) {
  return ::strtok_r(text, delimiters, save);
}

int32_t OPL_CrtRand(uint32_t* seed) { return ::rand_r(seed); }
