# Sourced by ./run and ./test: installs the Debian packages that are missing.

as_root() {
    if [[ $EUID -eq 0 ]]; then
        "$@"
    else
        sudo "$@"
    fi
}

apt() {
    as_root env DEBIAN_FRONTEND=noninteractive apt-get -y -q -o Acquire::Retries=3 \
        -o DPkg::Lock::Timeout=300 "$@" </dev/null
}

# Those of the packages named that are not installed.
missing_of() {
    local package
    for package in "$@"; do
        [[ $(dpkg-query -W -f '${db:Status-Abbrev}' "$package" 2>/dev/null) == ii* ]] ||
            echo "$package"
    done
}

# Installs what is missing of the packages named. A package of another
# architecture is written NAME:ARCHITECTURE.
require() {
    if ! command -v apt-get >/dev/null; then
        echo "== No apt-get here; expected to be installed: $*"
        return
    fi
    local missing package
    mapfile -t missing < <(missing_of "$@")
    [[ ${#missing[@]} -gt 0 ]] || return 0
    echo "== Installing: ${missing[*]}"
    for package in "${missing[@]}"; do
        [[ $package != *:* ]] || as_root dpkg --add-architecture "${package#*:}"
    done
    # An index that can't be had matters only if a package needs it.
    apt update || echo "== Some package lists could not be read"
    apt install --no-install-recommends "${missing[@]}"
}
