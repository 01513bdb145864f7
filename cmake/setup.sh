# ./run and ./test source this file: it installs the Debian packages that are
# missing.

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

# Prints which of the named packages are not installed.
missing_of() {
    local package
    for package in "$@"; do
        [[ $(dpkg-query -W -f '${db:Status-Abbrev}' "$package" 2>/dev/null) == ii* ]] ||
            echo "$package"
    done
}

# Installs the named packages that are missing. NAME:ARCHITECTURE names a package of
# another architecture. If `release` is set, they and their dependencies come from
# that release. Otherwise, where another release has newer versions, apt finds no
# set for two architectures.
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
    # A missing index matters only if a package needs it.
    apt update || echo "== Some package lists could not be read"
    apt install --no-install-recommends ${release:+-t "$release"} "${missing[@]}"
}

# Unpacks the sources of a Debian package, without Debian's changes, into the named
# folder, from where the machine gets its packages. Does not change the machine's
# list of sources or its package lists.
unpack_source() {
    local package=$1 folder=$2 state file
    [[ ! -e $folder ]] || return 0
    if ! command -v apt-get >/dev/null; then
        echo "== No apt-get here; expected in $folder: the sources of $package"
        return
    fi
    echo "== Getting the sources of $package"
    state=$(mktemp -d)
    mkdir -p "$state/sources" "$state/lists/partial"
    for file in /etc/apt/sources.list /etc/apt/sources.list.d/*; do
        case $file in
            *.sources) sed -E 's/^Types:.*/Types: deb-src/' "$file" >"$state/sources/${file##*/}" ;;
            *.list) [[ ! -e $file ]] || sed -n 's/^deb /deb-src /p' "$file" >"$state/sources/${file##*/}" ;;
        esac
    done
    local apt_get=(apt-get -q -o Acquire::Retries=3 -o Dir::Etc::SourceList=/dev/null
        -o "Dir::Etc::SourceParts=$state/sources" -o "Dir::State::Lists=$state/lists"
        -o "Dir::Cache::srcpkgcache=" -o "Dir::Cache::pkgcache=" -o APT::Sandbox::User=)
    "${apt_get[@]}" update || echo "== Some source lists could not be read"
    (cd "$state" && "${apt_get[@]}" source --download-only "$package")
    mkdir -p "$state/unpacked"
    tar -xf "$state/$package"_*.orig.tar.* -C "$state/unpacked" --strip-components=1
    mv -T "$state/unpacked" "$folder"
    rm -r "$state"
}
