#pragma once

#include "tests/contract/AdapterContract.h"
#include "tests/support/ScriptedAdapter.h"

namespace quendo::test {

/// The scripted fake, through these factories.
inline ContractSubject scriptedSubject(std::function<std::shared_ptr<CMAdapterFactory>()> factory =
                                           [] {
                                               return std::make_shared<ScriptedAdapterFactory>();
                                           }) {
    return {std::move(factory), R"sh(
mark() { case $1 in */*) mkdir -p ".fake/${1%/*}"; esac; printf "${2-}" > ".fake/$1"; }
create() { mkdir -p .fake/log .fake/base; mark format 1; }
commit() {
    new=.fake/log/$(($(ls .fake/log | wc -l) + 1)); mkdir -p $new/files; printf "$1" > $new/message
    find . -name .fake -prune -o -type f -exec sh -c '
        new=$1; shift; for f; do
            cmp -s "$f" ".fake/base/$f" || cp --parents "$f" $new/files
        done' sh $new {} +
    cp -r $new/files/. .fake/base; rm -rf .fake/added .fake/deleted
}
add() { mark "added/$1"; }
remove() { mark "deleted/$1"; }
ignore() { mark "ignored/$1"; }
conflict() { for side in base ours theirs; do mark "conflicts/$side/$1" $side'\n'; done; }
damage() { rm .fake/format; }
foreign() { mark format 99; }
)sh"};
}

} // namespace quendo::test
