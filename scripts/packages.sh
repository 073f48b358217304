# Sourced by run, test and bench/run: installs Debian packages.

# need_packages NAME...: installs those that are missing, or lists them and fails.
need_packages() {
    missing=""
    for package in "$@"; do
        dpkg-query -W -f '${Status}' "$package" 2>/dev/null | grep -q 'ok installed' ||
            missing="$missing $package"
    done
    [ -n "$missing" ] || return 0
    if ! command -v apt-get >/dev/null 2>&1; then
        explain_missing
    elif [ "$(id -u)" -eq 0 ]; then
        install_missing env
    elif command -v sudo >/dev/null 2>&1; then
        install_missing sudo
    else
        explain_missing
    fi
}

# want_packages NAME...: the same for optional packages. Never fails.
want_packages() {
    (need_packages "$@") || true
}

# install_missing PREFIX: shows the output of apt-get only if it fails.
install_missing() {
    echo "Installing:$missing" >&2
    log=$(mktemp)
    if "$1" apt-get update >"$log" 2>&1 &&
        "$1" env DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends \
            $missing >>"$log" 2>&1; then
        rm -f "$log"
    else
        cat "$log" >&2
        rm -f "$log"
        explain_missing
    fi
}

explain_missing() {
    echo "Cannot install these packages, install them by hand:" >&2
    for package in $missing; do
        echo "    $package" >&2
    done
    return 1
}
