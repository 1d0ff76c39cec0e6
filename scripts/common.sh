# Shared by the scripts of this folder and by CI; sourced, not run.

# Installs those of the given Debian packages that are missing.
install_packages() {
    local missing=() package
    for package in "$@"; do
        dpkg-query -W -f '${Status}' "$package" 2>/dev/null | grep -q 'ok installed' ||
            missing+=("$package")
    done
    [ ${#missing[@]} -eq 0 ] && return
    local as_root=()
    [ "$(id -u)" -eq 0 ] || as_root=(sudo)
    echo "Installing ${missing[*]}"
    "${as_root[@]}" apt-get update -qq
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
        apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}

build_packages=(cmake ninja-build g++ libcli11-dev nlohmann-json3-dev)
test_packages=("${build_packages[@]}" clang libclang-rt-dev libgtest-dev pkg-config
    python3-jsonschema)
ci_packages=("${test_packages[@]}" chromium clang-format clang-tidy libbenchmark-dev lintian
    mmdebstrap mypy python3-pip python3-setuptools python3-wheel)

# configure_and_build PRESET [CMake argument...]; prints only what a warning or an error says.
configure_and_build() {
    local preset=$1
    shift
    cmake --preset "$preset" "$@" >/dev/null
    cmake --build "$(preset_folder "$preset" "$@")" -- --quiet
}

# The folder that a preset builds into, unless -B names another.
preset_folder() {
    local folder=build/$1
    shift
    while [ $# -gt 0 ]; do
        [ "$1" != -B ] || folder=$2
        shift
    done
    echo "$folder"
}
