# Sourced by scripts that need a chroot with a fresh Debian of the same release as this machine.

skip() {
    echo "skipped: $*"
    exit 77
}

# The Debian mirror of a release, from the configuration of apt.
mirror_of() {
    apt-get indextargets --format '$(SITE) $(RELEASE) $(COMPONENT)' 'Created-By: Packages' |
        awk -v release="$1" '$2 == release && $3 == "main" { print $1; exit }'
}

# make_debian TARBALL [PACKAGE,PACKAGE...]: makes a Debian with the essential packages and these
make_debian() {
    [ "$(id -u)" -eq 0 ] || skip "a chroot needs root"
    command -v debootstrap >/dev/null || skip "debootstrap is not installed"
    release=$(. /etc/os-release && echo "${VERSION_CODENAME:-}")
    mirror=$(mirror_of "$release")
    [ -n "$mirror" ] || skip "apt knows no mirror of Debian $release"
    root=$(mktemp -d)
    trap 'rm -rf "$root"' EXIT INT TERM
    debootstrap --variant=minbase ${2:+--include="$2"} "$release" "$root" "$mirror" \
        >"$1.log" 2>&1 || {
        tail -n 3 "$1.log"
        skip "debootstrap cannot make a system"
    }
    tar -C "$root" -cf "$1.new" .
    mv "$1.new" "$1"
}

# enter_debian TARBALL: unpacks it into $root, for inside(); the end of the script removes it
enter_debian() {
    root=$(mktemp -d)
    trap leave_debian EXIT INT TERM
    tar -C "$root" -xpf "$1"
    chmod 755 "$root"
    mount -t proc proc "$root/proc"
}

leave_debian() {
    umount "$root/proc" 2>/dev/null || true
    rm -rf "$root"
}

# inside COMMAND: runs it in that Debian, without the environment except for the proxy
inside() {
    env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C DEBIAN_FRONTEND=noninteractive \
        http_proxy="${http_proxy:-}" chroot "$root" sh -euc "$1"
}
