# Sourced by test: checks that no test is missing.

# require_registered BUILD STAGE: fails unless the tests in BUILD are those that tests/registered lists
# for STAGE.
require_registered() {
    case $2 in
    quick) stages='quick|only' ;;
    full) stages='quick|full' ;;
    deep) stages='quick|full|deep' ;;
    esac
    left_out='^$'
    [ -z "${builds##* arm32*}" ] || left_out='^arm\.' # test has printed why
    awk -v stages="^($stages)\$" '$1 ~ stages { print $2 }' "$source_dir/tests/registered" |
        grep -v "$left_out" | sort >"$1/expected"
    ctest --test-dir "$1" -N | sed -n 's/^ *Test *#[0-9]*: //p' | sort >"$1/found"
    if ! diff "$1/expected" "$1/found" >"$1/differences"; then
        echo "The tests in $1 differ from the list in tests/registered for stage $2:" >&2
        sed -n 's/^</missing:   /p; s/^>/not listed:/p' "$1/differences" >&2
        return 1
    fi
}
