# Shared by scripts/test and scripts/demo: find or install what the build needs.

# need_packages "command-or-file:package" ...: installs the missing packages
# with apt-get when running as root, else names them and fails.
need_packages() {
    local missing=()
    local item probe package
    for item in "$@"; do
        probe=${item%%:*}
        package=${item#*:}
        if [[ $probe == /* ]]; then
            [[ -e $probe ]] || missing+=("$package")
        else
            command -v "$probe" >/dev/null 2>&1 || missing+=("$package")
        fi
    done
    [[ ${#missing[@]} -eq 0 ]] && return 0
    if [[ $(id -u) -eq 0 ]] && command -v apt-get >/dev/null 2>&1; then
        echo "installing: ${missing[*]}"
        export DEBIAN_FRONTEND=noninteractive
        apt-get update -qq >/dev/null && apt-get install -y -qq "${missing[@]}" >/dev/null || {
            echo "error: apt-get could not install: ${missing[*]}" >&2
            exit 1
        }
    else
        echo "error: missing packages: ${missing[*]}" >&2
        echo "install them with: sudo apt-get install ${missing[*]}" >&2
        exit 1
    fi
}

need_build_tools() {
    need_packages cmake:cmake g++:g++ make:make \
        /usr/include/gtest/gtest.h:libgtest-dev /usr/include/gmock/gmock.h:libgmock-dev
}

# build DIR [cmake options...]: configures and builds the tree into DIR.
build_tree() {
    local dir=$1
    shift
    cmake -S "$ROOT" -B "$dir" "$@" >/dev/null
    cmake --build "$dir" -j"$(nproc)" -- --no-print-directory >/dev/null
}

# want_packages "command:package" ...: like need_packages as root; otherwise
# only says which tests will be skipped without them.
want_packages() {
    if [[ $(id -u) -eq 0 ]] && command -v apt-get >/dev/null 2>&1; then
        need_packages "$@"
        return 0
    fi
    local item
    for item in "$@"; do
        command -v "${item%%:*}" >/dev/null 2>&1 ||
            echo "note: ${item#*:} is not installed; the tests that use it are skipped"
    done
}
