# The Debian 12 packages that building, running and testing need. Sourced by ./run and ./test.

packages=(
    g++ cmake ninja-build pkg-config
    libsqlite3-dev libpoco-dev libboost-dev libmsgpack-cxx-dev liblz4-dev libspdlog-dev
    libcli11-dev nlohmann-json3-dev
    sqlite3 diffutils jq # jq: the scripts read the client's JSON with it
)
test_packages=(libgtest-dev libbenchmark-dev)

# Installs those of the named packages that are missing. As somebody who may not, it prints the
# command that does and returns 1.
need_packages() {
    local package missing=()
    for package in "$@"; do
        [[ $(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null) == installed ]] || missing+=("$package")
    done
    ((${#missing[@]})) || return 0
    if ((EUID != 0)); then
        echo "Packages are missing. Install them with:" >&2
        echo "  sudo apt-get install --no-install-recommends ${missing[*]}" >&2
        return 1
    fi
    echo "Installing: ${missing[*]}"
    export DEBIAN_FRONTEND=noninteractive
    apt-get update -q && apt-get install -q -y --no-install-recommends "${missing[@]}"
}

# Configures and builds a preset, `cmake --build` with the further arguments. The log is shown when
# it fails; on a terminal one line tells how far it is.
build_preset() {
    local preset=$1
    shift
    local log=build/$preset.log
    mkdir -p build
    if ! cmake --preset "$preset" >"$log" 2>&1; then
        cat "$log" >&2
        return 1
    fi
    if [[ -t 1 ]]; then
        cmake --build --preset "$preset" "$@"
    else
        echo "Building the preset $preset (log: $log)"
        cmake --build --preset "$preset" "$@" >>"$log" 2>&1 || { grep -v '^\[' "$log" | tail -n 100 >&2; return 1; }
    fi
}
