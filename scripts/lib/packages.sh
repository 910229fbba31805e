# Sourced by the scripts: installs the Debian packages that they need.

# install_missing PACKAGE...: installs the packages that are missing. Uses the network only when one
# is missing. Does not start the services that packages contain.
install_missing() {
    if ! command -v dpkg-query >/dev/null; then
        echo "not a Debian system, please install by hand: $*" >&2
        return 0
    fi
    local missing=() package
    for package in "$@"; do
        if [[ $(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null || true) != installed ]]; then
            missing+=("$package")
        fi
    done
    if ((${#missing[@]} == 0)); then
        return 0
    fi
    local as_root=()
    if ((EUID != 0)); then
        as_root=(sudo)
    fi
    echo "installing ${missing[*]}" >&2
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive bash -c '
        set -euo pipefail
        # Package scripts call this program before they start a service; status 101 forbids it.
        guard=/usr/sbin/policy-rc.d
        if [[ ! -e $guard ]]; then
            trap "rm -f $guard" EXIT
            printf "#!/bin/sh\nexit 101\n" >$guard
            chmod 0755 $guard
        fi
        apt-get update -qq
        apt-get install -y -qq --no-install-recommends "$@" >/dev/null
    ' install_missing "${missing[@]}"
}

# Clang with the libraries of its sanitizers and its fuzzer, which in Debian are in a package of their
# own that is named after the version of Clang.
install_clang() {
    install_missing clang
    install_missing "libclang-rt-$(clang++ -dumpversion | cut -d. -f1)-dev"
}
