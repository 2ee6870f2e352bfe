#!/usr/bin/env bash
# Installs the library to a temporary prefix and builds examples/minimal against that copy
# alone, once with find_package(QelHttpDnsSDK) and once with pkg-config, and examples/curl with
# find_package. Fails when an installed header reaches a header that is not installed or is not
# the standard library's, when a file beyond the umbrella's headers and the C interface is
# installed, when the shared library hides a public name or exports an internal one, or when
# the C interface does not work from Python's ctypes.
#   scripts/check-install.sh                 static and shared library
#   scripts/check-install.sh static|shared   one of them
set -euo pipefail
cd "$(dirname "$0")/.."
kinds=("$@")
[ ${#kinds[@]} -eq 0 ] && kinds=(static shared)

scripts/setup.sh
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
warnings=(-Wall -Wextra -Wshadow -Werror)
c_interface=QelHttpDnsSDK/Extras/qel_httpdns.h

fail() { echo "check-install: $*" >&2; exit 1; }

check_headers() {
    local include=$1 umbrella=$1/QelHttpDnsSDK/QelHttpDnsSDK.h header name
    [ -f "$umbrella" ] || fail "the umbrella header is not installed"
    while IFS= read -r header; do
        name=${header#"$include"/}
        # The application sees only standard C++ headers and the installed ones; the C
        # interface, only standard C headers.
        local standard='\<[a-z_]+\>' kind="C++"
        [ "$name" = "$c_interface" ] && standard='\<std[a-z]+\.h\>' kind=C
        while IFS= read -r line; do
            case $line in
                *'<'*) [[ $line =~ $standard ]] || fail "$name: $line is not a standard $kind header" ;;
                *) local quoted=${line#*\"}; quoted=${quoted%\"*}
                   [ -f "$include/$quoted" ] || fail "$name: $line is not installed" ;;
            esac
        done < <(grep -E '^[[:space:]]*#[[:space:]]*include' "$header")
        # Nothing is installed that the umbrella does not offer, but the C interface.
        [ "$header" = "$umbrella" ] || [ "$name" = "$c_interface" ] ||
            grep -q "#include \"$name\"" "$umbrella" ||
            fail "$name is installed but not part of the umbrella"
        if [ "$name" = "$c_interface" ]; then
            echo "#include <$name>" |
                cc -std=c99 -pedantic "${warnings[@]}" -fsyntax-only -I"$include" -x c - ||
                fail "$name does not compile on its own as C99"
        fi
        # Each header compiles on its own.
        echo "#include <$name>" |
            c++ -std=c++17 "${warnings[@]}" -fsyntax-only -I"$include" -x c++ - ||
            fail "$name does not compile on its own"
    done < <(find "$include" -type f | sort)
    [ -z "$(find "$include" -path '*/Platform*')" ] || fail "a platform header is installed"
}

# Every class an installed header defines is marked QEL_EXPORT, and is exported when its
# members are defined in a source file (one class per file, named after it); so is every
# constant. Of the library's own names (Qel..., kQel..., the qel:: namespace) only those the
# installed headers declare are exported.
check_symbols() {
    local library=$1 include=$2 exported exported_names line name header source public declared
    exported=$(nm -DC --defined-only "$library" | sed -E 's/^[0-9a-f]+ [A-Za-z] //')
    exported_names=$(grep -oE '\bk?Qel[A-Za-z0-9_]*' <<<"$exported" | sort -u)
    public=$(grep -rhoE '^(QEL_EXPORT )?extern const [a-z0-9_ ]+ [A-Za-z_]+' "$include" |
             awk '{print $NF}')
    while IFS=: read -r header line; do
        name=$(sed -E 's/^class ([A-Z_]+ )?([A-Za-z_]+).*/\2/' <<<"$line")
        [[ $line == "class QEL_EXPORT "* ]] || fail "class $name is not marked QEL_EXPORT"
        source=${header#"$include"/}
        [ -f "${source%.h}.cpp" ] && public+=$'\n'$name
    done < <(grep -rE '^class ([A-Z_]+ )?[A-Za-z_]+( final)?( :.*)? \{' "$include")
    public=$(sort -u <<<"$public")
    declared=$( (echo "$public"; grep -rhoE '^(class|struct|enum) (QEL_EXPORT )?[A-Za-z_]+' \
                 "$include" | awk '{print $NF}') | sort -u)
    [ -n "$public" ] || fail "no exported name found in the installed headers"
    for name in $public; do
        grep -qx "$name" <<<"$exported_names" || fail "$name is not exported from $library"
    done
    for name in $exported_names; do
        grep -qx "$name" <<<"$declared" || fail "internal name $name is exported from $library"
    done
    ! grep -q '\bqel::' <<<"$exported" || fail "a qel:: name is exported from $library"
    echo "check-install: $(wc -l <<<"$exported") exported symbols; public names:" \
         "$(tr "\n" " " <<<"$public")"
}

build_example() {
    local kind=$1 prefix=$2 program
    # The CMake package alone: no source tree, no build tree on the paths.
    cmake -S examples/minimal -B "$work/example-cmake-$kind" -DCMAKE_PREFIX_PATH="$prefix" \
          -DCMAKE_CXX_FLAGS="${warnings[*]}" >/dev/null
    cmake --build "$work/example-cmake-$kind" -j2 >/dev/null
    cmake -S examples/curl -B "$work/example-curl-$kind" -DCMAKE_PREFIX_PATH="$prefix" \
          -DCMAKE_CXX_FLAGS="${warnings[*]}" >/dev/null
    cmake --build "$work/example-curl-$kind" -j2 >/dev/null
    # pkg-config, the same line for either kind of library.
    export PKG_CONFIG_PATH
    PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name QelHttpDnsSDK.pc)")
    # shellcheck disable=SC2046
    c++ -std=c++17 "${warnings[@]}" examples/minimal/main.cpp -o "$work/example-pc-$kind" \
        $(pkg-config --cflags --libs QelHttpDnsSDK) \
        -Wl,-rpath,"$(pkg-config --variable=libdir QelHttpDnsSDK)"
    unset PKG_CONFIG_PATH
    # Both load with every symbol bound at start; without arguments they print their usage.
    for program in "$work/example-cmake-$kind/minimal" "$work/example-pc-$kind" \
                   "$work/example-curl-$kind/curl_fetch"; do
        local status=0
        LD_BIND_NOW=1 "$program" >/dev/null 2>&1 || status=$?
        [ "$status" -eq 2 ] || fail "$program did not start (exit $status)"
    done
}

for kind in "${kinds[@]}"; do
    case $kind in
        static) shared=OFF ;;
        shared) shared=ON ;;
        *) fail "unknown kind $kind (static or shared)" ;;
    esac
    build=build/install-check-$kind
    prefix=$work/prefix-$kind
    cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DQEL_WERROR=ON -DBUILD_SHARED_LIBS=$shared \
          -DQEL_BUILD_TESTS=OFF -DQEL_BUILD_BENCH=OFF -DQEL_BUILD_TOOLS=OFF >/dev/null
    cmake --build "$build" -j2 >/dev/null
    cmake --install "$build" --prefix "$prefix" >/dev/null

    check_headers "$prefix/include"
    if [ "$kind" = shared ]; then
        library=$(find "$prefix" -name libQelHttpDnsSDK.so.1)
        [ -L "$library" ] || fail "libQelHttpDnsSDK.so.1 (the SOVERSION link) is not installed"
        check_symbols "$library" "$prefix/include"
        python3 tests/c_api/ctypes_check.py "$library" || fail "the C interface fails from ctypes"
    fi
    build_example "$kind" "$prefix"
    echo "check-install: $kind library: install set, headers and example builds pass"
done
