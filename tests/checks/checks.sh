#!/bin/bash
# checks.sh SOURCE SCRATCH: each check takes a small tree that is in order, and refuses it for the
# reason named once one thing in it is wrong.
set -u
scripts=$1/scripts
scratch=$2
failures=0

makeTree() {
    rm -rf "$scratch"
    mkdir -p "$scratch"/{cmake,docs,examples/{embed,logging},host,tests/git} \
        "$scratch"/quendo/{platform/standard,adapter,change_detection,factory,git,pool}
    cd "$scratch" || exit 2
    printf '%s\n' 'set(QUENDO_PUBLIC_HEADERS' quendo/{platform/Path,adapter/CMAdapter}.h \
        quendo/git/GitAdapterFactory.h ')' 'set(QUENDO_PRIVATE_HEADERS' quendo/platform/Utf8.h ')' \
        >cmake/PublicHeaders.cmake
    touch quendo/platform/{Path,Utf8}.h quendo/git/{GitAdapterFactory,GitTool}.h
    echo '#include "quendo/platform/Path.h"' >quendo/adapter/CMAdapter.h
    printf '#include "quendo/%s"\n' git/GitTool.h platform/Utf8.h >quendo/git/GitTool.cpp
    echo '#include "quendo/git/GitAdapterFactory.h"' >quendo/factory/Factories.cpp
    echo '#include "quendo/platform/standard/X.h"' >quendo/platform/Services.cpp
    echo '#include "quendo/pool/Pool.h"' >quendo/change_detection/disableChangeDetection.cpp
    echo 'add_library(q git/GitTool.cpp factory/Factories.cpp platform/Services.cpp
        # git/Off.cpp
        change_detection/disableChangeDetection.cpp)' >quendo/CMakeLists.txt
    echo '#include "quendo/adapter/CMAdapter.h"' >host/main.cpp
    echo 'add_executable(h main.cpp)' >host/CMakeLists.txt
    echo 'int main() {}' | tee examples/{embed,logging}/main.cpp >tests/git/GitTest.cpp
    echo 'add_executable(e main.cpp)' | tee examples/{embed,logging}/CMakeLists.txt >/dev/null
    touch tests/Other.cpp
    echo 'quendo_test(g GitTest.cpp ../Other.cpp)' >tests/git/CMakeLists.txt
    printf '%s\n' '# Quendo' '```cpp' 'int main() {}' '```' '```cpp' 'other' '```' |
        tee README.md >docs/embedding.md
    cp "$1/.clang-format" .
}

# refused CHECK REASON FILE LINE: with this line at the end of this file.
refused() {
    local output
    makeTree "$source"
    mkdir -p "$(dirname "$3")"
    printf '%b\n' "$4" >>"$3"
    if output=$("$scripts/check-$1" "$scratch" 2>&1); then
        echo "check-$1 accepted: $3: $4" >&2
    elif [[ $output != *"$2"* ]]; then
        echo "check-$1 refused for another reason: $3: $4: $output" >&2
    else
        return
    fi
    failures=$((failures + 1))
}

source=$1
checks=(arrows files)
command -v clang-format >/dev/null && checks+=(format)
for check in "${checks[@]}"; do
    makeTree "$source"
    "$scripts/check-$check" "$scratch" >/dev/null || failures=$((failures + 1))
done

# CHECK|REASON|FILE|LINE; an <NAME> stands for an include of quendo/NAME.
while IFS='|' read -r check reason file line; do
    [[ " ${checks[*]} " != *" $check "* ]] ||
        refused "$check" "$reason" "$file" "$(sed -E 's,^<(.*)>$,#include "quendo/\1",' <<<"$line")"
done <<'END'
arrows|platform/ does not see adapter/|quendo/platform/Path.cpp|<adapter/CMAdapter.h>
arrows|platform/ does not see exception/|quendo/platform/Path.cpp|  # include "quendo/exception/A.h"
arrows|adapter/ does not see git/|quendo/adapter/A.cpp|<git/GitAdapterFactory.h>
arrows|factory/ does not see git/|quendo/factory/A.cpp|<git/GitTool.h>
arrows|change_detection/ does not see pool/|quendo/change_detection/disableChangeDetection.h|<pool/A.h>
arrows|only Services.cpp|quendo/platform/A.cpp|<platform/standard/X.h>
arrows|stay in there|quendo/adapter/A.cpp|#include <git2/status.h>
arrows|only installed headers|host/A.cpp|<git/GitTool.h>
arrows|only installed headers|examples/embed/main.cpp|<platform/Utf8.h>
arrows|installed ones only|quendo/adapter/CMAdapter.h|<platform/Utf8.h>
arrows|full path|quendo/git/A.cpp|#include "GitTool.h"
arrows|cannot be followed|quendo/git/A.cpp|#include HEADER
arrows|not in the order|quendo/other/A.cpp|
files|tests/git/OtherTest.cpp: no CMakeLists.txt names it|tests/git/OtherTest.cpp|
files|quendo/git/Off.cpp: no CMakeLists.txt names it|quendo/git/Off.cpp|
files|quendo/adapter/New.h: name it|quendo/adapter/New.h|
files|quendo/git/GitTool.h: name it|cmake/PublicHeaders.cmake|set(QUENDO_PUBLIC_HEADERS\n    quendo/git/GitTool.h\n)
files|README.md: its first C++ block|examples/embed/main.cpp|// more
files|docs/embedding.md: its first C++ block|examples/logging/main.cpp|// more
format|clang-format -i mends it|host/main.cpp|int  x ;
END
exit $((failures > 0))
