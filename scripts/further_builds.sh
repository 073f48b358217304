# Sourced by test: the builds that the full stage adds.

configure fuzz -DCMAKE_BUILD_TYPE=Debug -DQUORVEL_BUILD_FUZZERS=ON -DQUORVEL_QVOL=OFF \
    -DCMAKE_CXX_COMPILER=clang++

# 32-bit ARM under an emulator: a selection of the tests in the full stage, all in the deep stage.
arm_tests="param_test;geometry_test;fatent_test;dentry_test;name_test;file_test;fastpath_test;zuq_test"
[ $stage = full ] || arm_tests=""
mkdir -p "$build_dir/arm32"
if command -v arm-linux-gnueabihf-g++ >/dev/null && command -v qemu-arm >/dev/null &&
    converters=$("$source_dir/tests/fetch_arm_converters" "$build_dir/arm-converters"); then
    configure arm32 -DCMAKE_BUILD_TYPE=Release -DQUORVEL_BUILD_TESTS=ON \
        -DQUORVEL_TEST_PREFIX=arm. \
        -DCMAKE_TOOLCHAIN_FILE="$source_dir/cmake/toolchain-arm-linux-gnueabihf.cmake" \
        -DQUORVEL_TESTS="$arm_tests" -DQUORVEL_GCONV_PATH="$converters" \
        -DQUORVEL_NATIVE_BUILD="$build_dir/test"
else
    echo "skipped: the tests for ARM: no compiler or no emulator"
fi
