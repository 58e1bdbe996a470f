# Sourced by other scripts. Installs missing Debian packages, if that is possible.

# Prints those of the given packages that are not installed.
missing_packages() {
    local package
    for package in "$@"; do
        dpkg-query -W -f '${Status}' "$package" 2>/dev/null | grep -q 'install ok installed' || echo "$package"
    done
}

# Installs those of the given packages that are missing. Fails if that is not possible, after it has named them.
ensure_packages() {
    local missing
    missing=$(missing_packages "$@" | tr '\n' ' ')
    [ -z "$missing" ] && return 0
    echo "== installing: $missing"
    if [ "$(id -u)" -eq 0 ] && command -v apt-get >/dev/null; then
        export DEBIAN_FRONTEND=noninteractive
        { apt-get update -qq && apt-get install -y -qq --no-install-recommends $missing; } >/dev/null
        missing=$(missing_packages "$@" | tr '\n' ' ')
        [ -z "$missing" ] && return 0
    fi
    echo "== these packages are missing and could not be installed here: $missing" >&2
    echo "   as root, with a package source: apt-get install --no-install-recommends $missing" >&2
    return 1
}

BUILD_PACKAGES="g++ cmake ninja-build libcli11-dev zlib1g-dev"
WINDOWS_PACKAGES="g++-mingw-w64-x86-64-posix gcc-mingw-w64-x86-64-posix binutils-mingw-w64-x86-64 libz-mingw-w64-dev"
WINE_PACKAGES="wine wine64 fonts-wine"
PACKAGING_PACKAGES="nsis zip debhelper dpkg-dev fakeroot git"
ARM64_PACKAGES="g++-aarch64-linux-gnu qemu-user"
