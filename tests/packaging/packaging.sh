#!/bin/bash
# packaging.sh TEST: see CMakeLists.txt. SOURCE, BUILD, SCRATCH, CXX, LAUNCHER and LIBDIR come from
# there.
set -euo pipefail
# CMake's default is make, which scripts/packages.txt does not list.
export CMAKE_GENERATOR=Ninja
prefix=$SCRATCH/moved
library=$prefix/$LIBDIR/libquendo.so
work=$SCRATCH/$1
rm -rf "$work"
mkdir -p "$work"
fail() { echo "failed: $*" >&2; exit 1; }

# expect NAME WANTED GOT
expect() { [[ $3 == "$2" ]] || fail "$1: expected: $2"$'\n'"got: $3"; }

# buildConsumer SOURCE [CMAKE ARGUMENT...]: configures and builds a project of a user in $work.
buildConsumer() {
    local source=$1
    shift
    cmake -S "$source" -B "$work" -DCMAKE_CXX_COMPILER="$CXX" \
        -DCMAKE_CXX_COMPILER_LAUNCHER="$LAUNCHER" -DCMAKE_BUILD_TYPE= "$@"
    ninja -C "$work"
}

# expectStates FOLDER: the example tells the states of the working copy that holds it.
expectStates() {
    expect states $'Ignored x.o\nModified changed\nNotUnderSourceControl sub/new' \
        "$("$work/embed" "$1" | sed "s| $work/copy/| |" | LC_ALL=C sort)"
}

# makeWorkingCopy: a working copy with one file of each of some kinds, in $work/copy.
makeWorkingCopy() {
    export HOME=$work GIT_CONFIG_NOSYSTEM=1
    unset XDG_CONFIG_HOME
    mkdir -p "$work/copy/sub"
    cd "$work/copy"
    git init -q .
    echo one >same; echo one >changed; echo '*.o' >.gitignore
    git add .
    git -c user.name=n -c user.email=e commit -qm first
    echo two >>changed; echo >sub/new; echo >x.o
}

case $1 in
install)
    rm -rf "$SCRATCH/prefix" "$prefix"
    cmake --install "$BUILD" --prefix "$SCRATCH/prefix" >/dev/null
    ! find "$SCRATCH/prefix" -name '*.debug' | grep . || fail "debug information is installed unasked"
    cmake --install "$BUILD" --prefix "$SCRATCH/prefix" --component debug >/dev/null
    # What follows finds nothing at the place that it was installed to.
    mv "$SCRATCH/prefix" "$prefix"
    # Every header is there, and nothing else beside them.
    expect headers "$(awk '/^set\(/ { public = /PUBLIC/ } public && /\.h$/ { print $1 }' \
        "$SOURCE/cmake/PublicHeaders.cmake" | LC_ALL=C sort)" \
        "$(cd "$prefix/include" && find . -type f | sed 's/^..//' | LC_ALL=C sort)"
    ! grep -rIlF -e "$SOURCE" -e "$BUILD" "$prefix" || fail "names folders of the build"
    ;;
embed)
    buildConsumer "$SOURCE/examples/embed" -DCMAKE_PREFIX_PATH="$prefix"
    makeWorkingCopy
    expectStates sub
    ! message=$("$work/embed" / 2>&1) || fail "a folder without a working copy was answered"
    expect message "no working copy here" "$message"
    # An exact minor version is part of the promise.
    ! cmake -S "$SOURCE/tests/packaging/border" -B "$work/newer" -DCMAKE_PREFIX_PATH="$prefix" \
        -DWANTED=0.99 >"$work/newer.log" 2>&1 || fail "version 0.99 was found"
    grep -q 'version: 0' "$work/newer.log" || fail "$(cat "$work/newer.log")"
    ;;
border)
    buildConsumer "$SOURCE/tests/packaging/border" -DCMAKE_PREFIX_PATH="$prefix"
    makeWorkingCopy
    # addr2line resolves a frame of an exception with the separate debug information.
    trace=$("$work/border")
    frame=$(grep -m 1 -o 'libquendo.*+0x.*' <<<"$trace")
    ! readelf -SW "$library" | grep -F .debug_info || fail "the library holds its debug information"
    frame=$(addr2line -ie "$library" "${frame##*+}")
    [[ $frame == *quendo/platform/StackTraceRecordingException.cpp:* ]] || fail "frame at $frame"
    ;;
logging)
    buildConsumer "$SOURCE/examples/logging" -DCMAKE_PREFIX_PATH="$prefix"
    makeWorkingCopy
    "$work/logging" 2>&1 | grep -E '^pool/PooledManagedFolderProvider:[0-9]+: virtual .*::provideFor\(.*: enter$'
    ;;
pkgconfig)
    export PKG_CONFIG_PATH=$prefix/$LIBDIR/pkgconfig
    read -ra flags < <(pkg-config --cflags --libs quendo)
    printf '#include "quendo/platform/Path.h"\nint main() { return quendo::Path(u"/a/b") %s; }' \
        '.parentPath() == quendo::Path(u"/a") ? 0 : 1' >"$work/main.cpp"
    "$CXX" "$work/main.cpp" "${flags[@]}" -o "$work/main"
    LD_LIBRARY_PATH=$prefix/$LIBDIR "$work/main"
    ;;
program)
    # The manual page has the commands and options that the program lists, and no others.
    helpOf() { "$prefix/bin/quendo" "$@" --help; }
    for command in "" $(helpOf | sed -n '/^Commands/,/^$/s/^  \([a-z]\+\) .*/\1/p'); do
        [[ -z $command ]] || echo "$command"
        helpOf $command | sed -n 's/^  \(-[^ ]*\).*/\1/p' | tr , '\n' |
            if [[ $command ]]; then grep -vxE -e '-h|--help|--log|--color' || true; else cat; fi |
            sed "s/^/$command /"
    done | LC_ALL=C sort >"$work/listed"
    sed 's/\\-/-/g' "$prefix/share/man/man1/quendo.1" | awk '
        /^\.S[HS]/ { command = $1 == ".SS" ? $2 : ""; if (command) print command }
        /^\.TP/ { getline; while (match($0, /\\fB-[^\\]*/)) {
            print command " " substr($0, RSTART + 3, RLENGTH - 3); $0 = substr($0, RSTART + RLENGTH) } }
        ' | LC_ALL=C sort >"$work/described"
    diff "$work/listed" "$work/described" || fail "--help (<) and host/quendo.1 (>) differ"
    bash -euc '. "$1"; complete -p quendo' - "$prefix/share/bash-completion/completions/quendo" >/dev/null
    makeWorkingCopy
    unset LD_LIBRARY_PATH
    expect porcelain $'!! x.o\n.M changed\n?? sub/new' \
        "$("$prefix/bin/quendo" status --porcelain --ignored . | tr '\t' ' ' | LC_ALL=C sort)"
    [[ $(ldd "$prefix/bin/quendo") == *"=> $prefix/bin/../$LIBDIR/libquendo.so"* ]] ||
        fail "the program does not run with the library beside it"
    ;;
exports)
    # Weak symbols come from templates and inline functions of others; all else must be ours.
    nm -DC --defined-only "$library" | sed 's/^[0-9a-f]* *//' >"$SCRATCH/exports.txt"
    ours='^. ((non-virtual|virtual) thunk to |(VTT|vtable|typeinfo|typeinfo name|guard variable) for )?(shared_)?quendo::'
    strangers=$(grep -v '^[VWu] ' "$SCRATCH/exports.txt" | grep -Ev "$ours" || true)
    [[ -z $strangers ]] || fail "exported, but not of the library's namespaces: $strangers"
    strangers=$(grep -E "git2|svn_|nlohmann|CLI::" "$SCRATCH/exports.txt" || true)
    [[ -z $strangers ]] || fail "exported from a back end: $strangers"
    # Were nothing of it exported, the lines above would be content too.
    grep -q ' quendo::AllCMAdapterFactoryProvider::provide' "$SCRATCH/exports.txt" ||
        fail "the library exports nothing"
    # Its threads run until the process has ended, so nothing of it may be destroyed before.
    ! nm -D --undefined-only "$library" | grep -w __cxa_atexit || fail "has destructors of statics"
    readelf -dW "$library" | grep -w NODELETE >/dev/null || fail "can be unloaded"
    ;;
subproject)
    # ccache knows the library from the last time when no precompiled header is in its way.
    buildConsumer "$SOURCE/tests/packaging/subproject" -DQUENDO_SOURCE="$SOURCE" \
        -DCMAKE_DISABLE_PRECOMPILE_HEADERS=ON
    ! find "$work" \( -name quendo -o -name '*test*' \) -type f -executable | grep . ||
        fail "more than the library was built"
    makeWorkingCopy
    expectStates .
    ;;
*) fail "no such test" ;;
esac
