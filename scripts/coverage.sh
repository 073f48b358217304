# Sourced by test: measures the lines and branches of core/, fat/ and tool/ that the tests reach.

need_packages gcovr
instrumented="-O0 -g --coverage"
# In batches equal lines of two sources would count as one function.
configure coverage -DCMAKE_BUILD_TYPE=Debug -DQUORVEL_BUILD_TESTS=ON -DCMAKE_UNITY_BUILD=OFF \
    -DCMAKE_CXX_FLAGS="$instrumented" -DCMAKE_C_FLAGS="$instrumented"
coverage_dir=$build_dir/coverage
cmake --build "$coverage_dir" -j "$jobs"
find "$coverage_dir" -name '*.gcda' -delete
ctest --test-dir "$coverage_dir" --output-on-failure -j "$jobs" "$@"

mkdir -p "$coverage_dir/report"
gcovr --root "$source_dir" --filter "$source_dir/core/" --filter "$source_dir/fat/" --filter "$source_dir/tool/" \
    --exclude-unreachable-branches --html-details "$coverage_dir/report/index.html" \
    --txt - --print-summary --fail-under-line 99 --fail-under-branch 95 "$coverage_dir"
