// Runs a program that the build made for the tests with qvopl_test_program.
#ifndef OPL_TESTS_SUPPORT_PROGRAM_H
#define OPL_TESTS_SUPPORT_PROGRAM_H

#include <string>
#include <vector>

namespace opltest {

// What the program writes to its standard output. Fails the test when its exit status is not 0.
std::string OutputOf(const std::string& path, const std::vector<std::string>& arguments);

}  // namespace opltest

#endif
