// The same program as C++20.

#include "tests/c_api_test.c" // NOLINT(bugprone-suspicious-include)
