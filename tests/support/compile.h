// Compiles programs of the documents and examples as a user does and links them with the library.

#pragma once

#include "tests/support/process.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace testing_support {

// `compiler` with its language options, one source file, the static library.
inline void compile(std::vector<std::string> compiler, const std::string &source,
                    const std::string &program) {
    const std::vector<std::string> arguments = {
        "-Wall", "-Wextra",       "-Werror", "-I",   QUORVEL_SOURCE_DIR,
        source,  QUORVEL_LIBRARY, "-o",      program};
    compiler.insert(compiler.end(), arguments.begin(), arguments.end());
    if (QUORVEL_SANITIZED) {
        compiler.emplace_back("-fsanitize=address,undefined"); // as the library is
        compiler.emplace_back("-lstdc++");
    }
    if (QUORVEL_COVERED) {
        compiler.emplace_back("--coverage");
    }
    EXPECT_EQ(run(compiler), (outcome{0, "", ""}));
}

} // namespace testing_support
