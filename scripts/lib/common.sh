# Shared by the scripts: printing, package set-up, preset builds and runs.

step() { printf '\n==> %s\n' "$*"; }

# Prints the comment block at the top of the running script: its usage.
usage() { awk 'NR > 1 && !/^#/ { exit } NR > 1' "$0"; }

# Installs the Debian packages given that are missing (only as root; otherwise
# names them and fails).
ensure_packages() {
    local missing=()
    local pkg
    for pkg in "$@"; do
        dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "install ok installed" ||
            missing+=("$pkg")
    done
    [[ ${#missing[@]} -eq 0 ]] && return 0
    if [[ $(id -u) -ne 0 ]]; then
        echo "missing packages: ${missing[*]} (install them, or run as root)" >&2
        return 1
    fi
    step "installing ${missing[*]}"
    if [[ -z "${VELACAM_APT_UPDATED:-}" ]]; then
        DEBIAN_FRONTEND=noninteractive apt-get update -qq </dev/null
        export VELACAM_APT_UPDATED=1
    fi
    DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" \
        </dev/null >/dev/null
}

ensure_build_tools() {
    ensure_packages cmake g++ ninja-build pkg-config libgtest-dev libgmock-dev googletest \
        libbenchmark-dev
}

# Configures one preset of CMakePresets.json (with any further cache settings
# given) and builds it: whole, or only TARGET when it is not empty.
#   build_preset PRESET [TARGET [-DNAME=VALUE ...]]
build_preset() {
    local preset=$1 target=${2:-}
    step "configure and build: $preset${target:+ ($target)}"
    cmake --preset "$preset" "${@:3}" >/dev/null
    cmake --build --preset "$preset" -j "$(nproc)" ${target:+--target "$target"}
}

# build/release/bench/velacam_bench, built without the examples.
build_bench() {
    build_preset release velacam_bench -DVELACAM_BUILD_EXAMPLES=OFF
}

# Configures, builds and tests one preset of CMakePresets.json.
run_preset() {
    local preset=$1
    build_preset "$preset"
    step "test: $preset"
    ctest --preset "$preset" --timeout 300
}
