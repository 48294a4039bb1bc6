# Shared by the scripts: printing, package set-up and preset runs.

step() { printf '\n==> %s\n' "$*"; }

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

# Configures, builds and tests one preset of CMakePresets.json.
run_preset() {
    local preset=$1
    step "configure: $preset"
    cmake --preset "$preset" >/dev/null
    step "build: $preset"
    cmake --build --preset "$preset" -j "$(nproc)"
    step "test: $preset"
    ctest --preset "$preset" --timeout 300
}
