# Building for other processors and systems; sourced by test-platforms behind common.sh, not run.

# Those that look at bytes and records; more is needed where the system is another one.
tests_of_bytes=(crc_test fcs_test file_table_test file_tree_test qoqfs_test afs_file_test
    efs_change_test session_test)
tests_of_windows=("${tests_of_bytes[@]}" afs_cache_test afs_device_log_test afs_ftl_test
    afs_image_test check_test efs_mount_test efs_refusal_test flash_stage_test image_reader_test
    manifest_test out_of_memory_test patterns_test proof_test set_power_cut_test table_refusal_test)

# platform_triplet PLATFORM: the name of its tools.
platform_triplet() {
    case $1 in
    i386) echo i686-linux-gnu ;;
    armhf) echo arm-linux-gnueabihf ;;
    aarch64) echo aarch64-linux-gnu ;;
    s390x) echo s390x-linux-gnu ;;
    windows) echo x86_64-w64-mingw32 ;;
    *)
        echo "unknown platform $1" >&2
        return 1
        ;;
    esac
}

# How the programs of a platform run here, with semicolons between the words.
platform_emulator() {
    case $1 in
    windows) echo /usr/lib/wine/wine64 ;;
    armhf) echo "qemu-arm;-L;/usr/arm-linux-gnueabihf" ;;
    *) echo "qemu-$1;-L;/usr/$(platform_triplet "$1")" ;;
    esac
}

# emulated PLATFORM PROGRAM ARGUMENT...
emulated() {
    local words platform=$1
    shift
    IFS=';' read -ra words <<<"$(platform_emulator "$platform")"
    WINEDEBUG=-all WINEPREFIX=$PWD/build/windows/wine "${words[@]}" "$@"
}

# prepare_platform PLATFORM: installs its tools, and puts GoogleTest, built for it, into
# build/PLATFORM/packages.
prepare_platform() {
    local triplet name packages=$PWD/build/$1/packages
    triplet=$(platform_triplet "$1")
    case $1 in
    windows) install_packages "${test_packages[@]}" g++-mingw-w64-x86-64-posix wine64 unzip ;;
    *) install_packages "${test_packages[@]}" "g++-$triplet" qemu-user ;;
    esac
    [ -e "$packages/lib/libgtest.a" ] && return
    cmake_for_platform "$1" -S /usr/src/googletest -B "build/$1/googletest" -DBUILD_GMOCK=OFF \
        -DCMAKE_INSTALL_LIBDIR=lib -DCMAKE_INSTALL_PREFIX="$packages" >/dev/null
    cmake --build "build/$1/googletest" --target install -- --quiet >/dev/null
}

# cmake_for_platform PLATFORM ARGUMENT...: with little optimisation, since compiling takes the most,
# and without GCC's notes about the calls of its versions before 7 on armhf.
cmake_for_platform() {
    local triplet system=Linux threads=
    triplet=$(platform_triplet "$1")
    if [ "$1" = windows ]; then
        system=Windows
        threads=-posix
    fi
    cmake -G Ninja -DCMAKE_SYSTEM_NAME=$system -DCMAKE_SYSTEM_PROCESSOR="${triplet%%-*}" \
        -DCMAKE_C_COMPILER="$triplet-gcc$threads" -DCMAKE_CXX_COMPILER="$triplet-g++$threads" \
        -DCMAKE_CROSSCOMPILING_EMULATOR="$(platform_emulator "$1")" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DCMAKE_C_FLAGS_RELWITHDEBINFO=-O1 -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O1 -Wno-psabi" "${@:2}"
}

# build_for_platform PLATFORM TARGET...
build_for_platform() {
    local platform=$1
    cmake_for_platform "$platform" -S . -B "build/$platform" -DDOLM_WERROR=ON \
        -DDOLM_BUILD_HOST=ON -DDOLM_BUILD_TESTS=ON \
        -DCMAKE_GTEST_DISCOVER_TESTS_DISCOVERY_MODE=PRE_TEST \
        -DCMAKE_PREFIX_PATH="$PWD/build/$platform/packages" >/dev/null
    cmake --build "build/$platform" --target "${@:2}" -- --quiet
}

# run_tests PLATFORM TEST...: each program as a whole, since an emulator takes long to start.
run_tests() {
    local platform=$1 suffix= log test passed total=0
    [ "$platform" != windows ] || suffix=.exe
    for test in "${@:2}"; do
        log=build/$platform/$test.log
        emulated "$platform" "build/$platform/tests/$test$suffix" >"$log" 2>&1 || {
            echo "$test"
            grep -E -A 15 ': Failure' "$log" | head -n 150 || tail -n 60 "$log"
            return 1
        }
        passed=$(sed -n 's/^\[  PASSED  \] \([0-9]*\) tests\?\..*/\1/p' "$log")
        total=$((total + passed))
    done
    echo "$total tests in $(($# - 1)) programs passed"
}

# all_tests PLATFORM: the names of the programs that a whole build makes.
all_tests() {
    find "build/$1/tests" -maxdepth 1 -type f \( -name '*_test' -o -name '*_test.exe' \) \
        -exec basename {} .exe \; | sort
}

# The program of this machine, from a build that is there.
dolm_here() {
    local build
    for build in dev package; do
        if [ -x "build/$build/dolm" ]; then
            echo "build/$build/dolm"
            return
        fi
    done
    configure_and_build dev -DDOLM_BUILD_HOST=ON
    echo build/dev/dolm
}

# compare_example_host PLATFORM: what the example leaves there with what dolm leaves here.
compare_example_host() {
    local sets=build/$1/sets name
    rm -rf "$sets"
    mkdir "$sets"
    "$(dolm_here)" sample "$sets/here" >/dev/null
    cp -r "$sets/here" "$sets/there"
    for name in /home/net/hostname /home/radio/cal/date; do
        "$(dolm_here)" set "$sets/here" "$name" changed >/dev/null 2>&1
        emulated "$1" "build/$1/examples/example_host_c" "$sets/there" 1 "$name" changed \
            >/dev/null 2>&1
    done
    diff -r -x set.json "$sets/here" "$sets/there"
    echo "the example host leaves the same bytes on $1"
}

# compare_sample_set PLATFORM: with that of the program of this machine.
compare_sample_set() {
    local suffix= sets=build/$1/sets
    [ "$1" != windows ] || suffix=.exe
    rm -rf "$sets"
    mkdir "$sets"
    "$(dolm_here)" sample "$sets/here" >/dev/null
    emulated "$1" "build/$1/dolm$suffix" sample "$sets/there" >/dev/null
    diff -r "$sets/here" "$sets/there"
    echo "the sample set of $1 has the same bytes"
}

# What a wine of its own can show of Windows: the symbols of the DLL, a host that loads it, and the
# program with names of other alphabets and with long paths, with locks and through a change.
test_windows() {
    local dolm=build/windows/dolm.exe sets=build/windows/sets long name
    cmake/exported_symbols build/windows/DolmStorageLib.dll
    for name in DolmStorageLib.dll dolm.exe; do # without the time of the build
        "$(platform_triplet windows)-objdump" -p "build/windows/$name" |
            grep '^Time/Date.* 1970$' >/dev/null
    done
    emulated windows build/windows/tests/dlopen_host.exe build/windows/DolmStorageLib.dll \
        "$sets/there" 1 /home/net/hostname 2>/dev/null
    diff -r "$sets/here" "$sets/there"

    printf -v long '%0100d' 0
    name=$sets/gerät-设备/$long/$long/$long
    mkdir -p "${name%/*}"
    emulated windows "$dolm" sample "$name" >/dev/null
    emulated windows "$dolm" set "$name" net/hostname größe >/dev/null 2>&1
    "$(dolm_here)" set "$sets/here" net/hostname größe >/dev/null 2>&1
    diff -r "$sets/here" "$name"
    [ "$(emulated windows "$dolm" get "$name" net/hostname 2>/dev/null)" = größe ]
    emulated windows "$dolm" check "$name" >/dev/null 2>&1
    if emulated windows "$dolm" prove "$name" 2>"$sets/prove"; then
        return 1
    fi
    grep -q Linux "$sets/prove"
    (cd build/windows && cpack >/dev/null)
    unzip -tq build/windows/packages/*.zip '*/bin/dolm.exe' '*/bin/DolmStorageLib.dll' \
        '*/lib/libDolmStorageLib.dll.a' '*/qoqfs.h' >/dev/null
    echo "the DLL and dolm.exe do what they do on Linux"
}
