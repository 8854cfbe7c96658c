#pragma once

#include "quendo/git/GitAdapterFactory.h"
#include "tests/contract/AdapterContract.h"

namespace quendo::test {

/// Git, through these factories, in the environment of a GitSandbox.
inline ContractSubject gitSubject(std::function<std::shared_ptr<CMAdapterFactory>()> factory = [] {
    return std::make_shared<git::GitAdapterFactory>();
}) {
    return {std::move(factory), R"sh(
create() { git init -q -b main; }
commit() { git add -A; git commit -q --allow-empty -m "$1"; }
add() { git --literal-pathspecs add -- "$1"; }
remove() { git --literal-pathspecs rm -q --cached -- "$1"; }
ignore() { echo "/$1" >> .git/info/exclude; }
say() { echo "$2" > "$1"; git commit -q --allow-empty -m "$2" -- "$1"; }
conflict() {
    say "$1" base; git checkout -q -b side; say "$1" theirs
    git checkout -q main; say "$1" ours; ! git merge -q side
}
damage() { rm .git/HEAD; }
foreign() { git config core.repositoryFormatVersion 99; }
)sh"};
}

} // namespace quendo::test
