#include "tests/integration/Scenarios.h"

namespace quendo::test {
namespace {

// i [OPTIONS]         makes the repository
// w FILE [TEXT]       writes a file, with its folders
// c [MESSAGE]         stages and commits all
// stale FILE…         gives them another time than the index remembers
// still FILE…         stages them with a time that cannot be told from the index's own
// stages FILE N…      puts FILE into the index with these conflict stages only
// sub NAME [TEXT]     makes a submodule with one commit and stages it; quick, by copying the first
// fork                ours on main and theirs on side, with a conflict in f
constexpr std::string_view prelude = R"sh(
set -eu
i() { git init -q -b main "$@"; }
w() { case $1 in */*) mkdir -p -- "${1%/*}";; esac; printf '%s' "${2-x}" > "$1"; }
c() { git add -A; git commit -q --allow-empty -m "${1-c}"; }
stale() { touch -h -d @1600000000 -- "$@"; }
still() {
    touch -d @1700000000 -- "$@"; git add -- "$@"; git commit -q -m still
    touch -d @1700000000 .git/index
}
stages() {
    local f=$1 s blob; shift
    {
        printf '0 %040d\t%s\n' 0 "$f"
        for s; do
            blob=$(printf 'stage %s' "$s" | git hash-object -w --stdin)
            printf '100644 %s %s\t%s\n' "$blob" "$s" "$f"
        done
    } | git update-index --index-info
}
sub() {
    if [ -d ../template ]; then cp -a ../template "$1"; else
        git init -q -b main "$1"; w "$1/f" one; w "$1/.gitignore" '*.o'
        git -C "$1" add -A; git -C "$1" commit -q -m one; cp -a "$1" ../template
    fi
    git config -f .gitmodules "submodule.$1.path" "$1"
    git config -f .gitmodules "submodule.$1.url" "./$1"
    git add .gitmodules "$1"
}
fork() {
    i; w f 0; w g; w h; c base; git checkout -q -b side; w f theirs; w g theirs; c theirs
    git checkout -q main; w f ours; c ours
}
ignoring() { for s in $submodules; do git config -f "$1" "submodule.$s.ignore" "$2"; done; }
every_submodule() {
    submodules='clean modified untracked ignored commit staged uninit gone'
    i; for s in $submodules; do sub "$s"; done
    c; w modified/f two; w untracked/new; w ignored/a.o; w ignored/new; stale clean/f
    for s in commit staged; do git -C $s commit -q --allow-empty -m two; done; git add staged
    rm -rf uninit/* uninit/.git* gone
}
)sh";

const std::vector<Scenario> table = {
    // --- Conflicts, and operations that stand half done.
    {"conflict of every kind", "DD AU UA UD DU AA UU M. ??", R"sh(
        i; for f in moved ud du uu plain; do w $f "$(seq 20) $f"; done; c
        git checkout -q -b side; git mv moved theirs; git rm -q ud; echo t >> du; echo t >> uu
        echo t >> plain; w aa t; c
        git checkout -q main; git mv moved ours; echo o >> ud; git rm -q du; echo o >> uu; w aa o
        c; ! git merge -q side >/dev/null; rm uu; chmod +x aa; w new)sh"},
    {"conflict AA: in submodule and symlink", "UU AA", R"sh(
        i; sub s; c; git checkout -q -b side; git -C s checkout -q -b a; w s/f a; git -C s add f
        git -C s commit -q -m a; ln -s a l; c; git -C s checkout -q main; git checkout -q main
        git -C s reset -q --hard; w s/f b; git -C s commit -q -am b; ln -s b l; c
        ! git merge -q side >/dev/null 2>&1)sh"},

    // --- Renames, types, modes, links.
    {"staged rename", "D. A. AM", R"sh(
        i; w a "$(seq 50)"; w b "$(seq 60 99)"; c; git mv a d; mkdir n; git mv b n/b; echo >> n/b)sh"},
    {"type change", "T. .T TT .D ??", R"sh(
        i; for f in a b c d; do w $f; done; c; for f in a c; do rm $f; ln -s x $f; done
        git add -A; rm b; ln -s a b; rm c; mkdir c; rm d; w d/new; rm -r c; w c; chmod +x c)sh"},
    {"type change: folder by file and file by folder", ".D ?? !!", R"sh(
        i; w .gitignore '*.o'; w d/f; w d/g/h; w e; c; rm -r d; w d; rm e; w e/f; w e/a.o)sh"},
    {"type change: folders by names of Git's files", "A. .M .D ??", R"sh(
        i; w .gitignore '*.o'; w .gitattributes/a; w a; c; rm .gitignore; w .gitignore/a.o
        w .gitattributes/a 2; w .gitmodules/a; git add .gitmodules)sh"},
    {"type change: folder by link to a like folder", ".D ??", R"sh(
        i; w d/f; w d/g; c; mv d ../away; ln -s ../away d)sh"},
    {"mode change", ".M M. MM", R"sh(
        i; for f in a b c; do w $f; done; c; chmod +x a b c; git add b c; chmod -x c)sh"},
    {"symlink", ".T .M ?? A.", R"sh(
        i; w f; ln -s f ok; ln -s gone dangling; mkdir d; ln -s d folder; ln -s f back; c
        ln -sfn other ok; rm back; w back; ln -s f new; ln -s nowhere new2; ln -s d new3
        ln -s new3 staged; git add staged; stale dangling)sh"},

    // --- Submodules, nested repositories, worktrees, other places for the metadata.
    {"submodule", ".M M. .D", "every_submodule"},
    {"submodule: absorbed, by clone", ".M", R"sh(
        git init -q -b main ../up; w ../up/f; (cd ../up; c); i
        for s in a b d; do git submodule --quiet add ../up $s; done; c; w a/f 2; w b/new; w d/f 2
        git -C d commit -q -am 2; git submodule --quiet deinit -f b)sh"},
    {"submodule: within submodules", ".M", R"sh(
        i; sub a; sub b; mv ../template ../once; (cd a; cp -a ../../once ../template; sub n
        rm -r ../template; git commit -q -m n; w n/deep); git add a; c; w a/n/f 2; rm b/f)sh"},
    {"submodule: no .gitmodules, replaced, removed", ".M ?? D.", R"sh(
        i; for s in a b d e; do sub $s; done; git rm -q --cached .gitmodules; rm .gitmodules; c
        w a/f 2; rm -rf b; w b; git rm -q --cached d; rm -rf e/.git)sh"},
    {"submodule: diff.ignoreSubmodules of the user", "M.", R"sh(
        every_submodule; git config --global diff.ignoreSubmodules all)sh"},
    {"submodule ignore=none", "M.", "every_submodule; ignoring .gitmodules none"},
    {"submodule ignore=untracked", "M.", "every_submodule; ignoring .gitmodules untracked"},
    {"submodule ignore=dirty", "M.", "every_submodule; ignoring .gitmodules dirty"},
    {"submodule ignore=all", "M.", "every_submodule; ignoring .gitmodules all"},
    {"nested repository", "?? !! .M", R"sh(
        i; w .gitignore ign/; w t/f; c; w t/f 2; for d in full t/in new/in ign/in; do
        git init -q -b main $d; w $d/f; git -C $d add f; git -C $d commit -q -m x; done
        git init -q --bare bare; git init -q empty.d; rm -rf empty.d/.git; w new/o)sh"},
    {"nested repository: empty", "??", R"sh(
        i; w f; c; git init -q e; git init -q d/e; git init -q u; w u/f; mkdir g; git init -q g/e
        w h/.git 'gitdir: nowhere'; w h/f; mkdir -p k/.git; w k/f; w l/.git/HEAD junk; w l/f)sh"},
    {"nested repository: made below tracked files", ".M ??", R"sh(
        i; w d/f; w d/g; c; git init -q d; w d/f 2; w d/new; git -C d add g)sh"},
    {"linked worktree", ".M ?? !! A. D.", R"sh(
        i; w f; w g; w .gitignore '*.o'; c; git worktree add -q -b b ../linked
        echo '*.x' >> .git/info/exclude; cd ../linked; w f 2; w a.o; w b.x; w new; w added
        git add added; git rm -q g)sh",
     "../linked"},
    {"linked worktree: from the main one, one inside", ".M ?? !!", R"sh(
        i; w f; w .gitignore ign/; c; git worktree add -q in/side; git worktree add -q ign/other
        w f 2; w in/side/f 3)sh"},
    {"separate git dir", ".M ?? !!", R"sh(
        i --separate-git-dir ../meta; w f; c; w f 2; w n; w x.o; echo '*.o' > ../meta/info/exclude)sh"},
    {"separate git dir: .git is a symbolic link", ".M ?? D.", R"sh(
        i; w f; w g; c; mv .git ../meta; ln -s ../meta .git; w f 2; w n; git rm -q g)sh"},
    {"separate git dir: relative core.worktree", ".M ??", R"sh(
        i; git config core.worktree ..; w f; c; w f 2; w d/n)sh"},
    {"objects elsewhere: alternates", ".M D.", R"sh(
        git init -q ../up; (cd ../up; w f; w g; c); git clone -q --shared ../up .; w f 2; git rm -q g)sh"},
    {"objects elsewhere: partial clone", ".M ?? A.", R"sh(
        git init -q ../up; (cd ../up; w f; w d/g; c; w f 2; c)
        git -C ../up config uploadpack.allowFilter true
        git clone -q --filter=blob:none "file://$PWD/../up" .; w f 3; stale d/g; w n; w a; git add a)sh"},

    // --- Heads.
    {"unborn HEAD", "A. AM ??", "i; w f; w g; git add f g; w g 2; w n"},
    {"unborn HEAD: empty repository", "-", "i"},
    {"detached HEAD", ".M A.", R"sh(
        i; w f; c; w f 2; c; git checkout -q HEAD~1; w f 3; w g; git add g)sh"},

    // --- Sparse checkout and the index's flags.
    {"sparse checkout: cone", ".M ?? A.", R"sh(
        i; w f; w a/f; w a/x/f; w b/f; w b/x/f; c; git sparse-checkout set a/x 2>/dev/null
        w a/x/f 2; w f 2; w b/new; w a/x/n; git add a/x/n)sh"},
    {"sparse checkout: sparse index", ".M ?? D. A.", R"sh(
        i; w f; w a/f; w a/g; w b/f; w b/x/f; w d/f; c
        git sparse-checkout set --cone --sparse-index a 2>/dev/null
        w a/f 2; git rm -q a/g; w b/n; w a/new; git add a/new)sh"},
    {"skip-worktree", ".M D.", R"sh(
        i; for f in a b d e g; do w $f; done; c; git update-index --skip-worktree a b d
        w a 2; rm b; w e 2; git rm -q --cached --sparse d; rm d; rm g; git update-index --skip-worktree g
        w g 2)sh"},
    {"assume-unchanged", ".M .D", R"sh(
        i; for f in a b d e; do w $f; done; c; git update-index --assume-unchanged a b
        w a 2; rm b; w d 2; rm e)sh"},
    {"intent-to-add", ".A .D .M", R"sh(
        i; w f; c; w a; w e ''; w g; ln -s f l; git add -N a e g l; rm g; w f 2)sh"},
    {"rm --cached", "D. ??", "i; w f; w d/f; w o; c; git rm -q --cached f d/f; w d/n"},
    {"rm --cached: of ignored files", "D. !!", R"sh(
        i; w .gitignore $'*.o\nd/\n'; w a.o; w d/f; w d/x.o; w k.o; git add -f .; c
        git rm -q --cached a.o d/f d/x.o)sh"},

    // --- Ignoring.
    {"ignore files: nested and negated", "?? !!", R"sh(
        i; w .gitignore $'*.o\n!keep.o\n/root\nd/\n!d/f\n# c\n\\#h\na[0-9]\nsp\\ \n**/deep/**\n'
        w n/.gitignore $'!x.o\n*.t\n!/n.t\n'; w n/m/.gitignore $'*\n!.gitignore\n!k\n'; c
        for f in a.o keep.o root s/root d/f d/g n/x.o n/y.o n/z.t n/n.t n/m/k n/m/j n/m/o/k \
            '#h' a1 ab 'sp ' q/deep/r/s q/deep.x w/.gitignore; do w "$f"; done)sh"},
    {"ignore files: folders with tracked and untracked files", ".M !! ?? .D", R"sh(
        i; w d/f; w d/e/g; w e/h; c; w .gitignore $'d/\ne/*\n'; w d/f 2; w d/n; w d/x/y; w e/n
        w e/m/n; rm d/e/g)sh"},
    {"ignore files: empty folders and case", "!!", R"sh(
        i; w .gitignore $'e/\nUP\n'; c; mkdir -p e x/y; w up; w UP; git config core.ignoreCase true
        w z/Up; mkdir -p z/e/e; w z/e/e/f)sh"},
    {"info/exclude", "!! ??", R"sh(
        i; w .gitignore '!b.x'; echo '*.x' >> .git/info/exclude; w a.x; w b.x; w d/a.x)sh"},
    {"core.excludesFile", "!! ??", R"sh(
        i; git config --global core.excludesFile '~/my ignores'; w "$HOME/my ignores" '*.y'
        w .gitignore '!n/*.y'; w a.y; w n/b.y)sh"},
    {"core.excludesFile: named by the repository", "!! ??", R"sh(
        i; w ../ign '*.z'; git config core.excludesFile "$PWD/../ign"; w a.z; w b)sh"},
    {"tracked file in an ignored folder", ".M !! .D", R"sh(
        i; w .gitignore ign/; w ign/f; w ign/g; w ign/d/h; git add -f .; c; w ign/f 2; rm ign/g
        w ign/n; w ign/e/n)sh"},

    // --- Content that is not stored as it lies there.
    {"autocrlf", ".M", R"sh(
        i; git config core.autocrlf true; printf 'a\nb\n' > f; printf 'a\r\n' > g
        printf 'a\0\r\n' > bin; git add . 2>/dev/null; git commit -q -m c
        printf 'a\r\nb\r\n' > f; printf 'a\n' > g; printf 'a\0\n' > bin)sh"},
    {"eol attributes", ".M", R"sh(
        i; w .gitattributes $'*.t text\n*.c text eol=crlf\n*.l eol=lf\n*.b -text\n*.a text=auto\n'
        for f in a.t b.c d.l e.b g.a h.t; do printf 'x\ny\n' > $f; done; c
        for f in a.t b.c d.l e.b g.a; do printf 'x\r\ny\r\n' > $f; done; w h.t z)sh"},
    {"ident", ".M", R"sh(
        i; w .gitattributes '* ident'; w f '$Id$'; w g '$Id$'; w h '$Id$'; c; rm f; git checkout -q f
        stale f; w g '$Id: other $'; w h '$Id$ more')sh"},
    {"working-tree-encoding", ".M", R"sh(
        i; w .gitattributes $'*.u working-tree-encoding=UTF-16LE text\n*.l working-tree-encoding=latin1'
        printf 'a\0\n\0' > a.u; printf 'b\0\n\0' > b.u; printf '\xe9' > c.l; c
        printf 'c\0\n\0' > b.u; stale a.u c.l; w d.l)sh"},
    {"filter: of the user", ".M", R"sh(
        git config --global filter.up.clean 'tr a-z A-Z'; git config --global filter.up.required true
        i; w .gitattributes '*.u filter=up'; w a.u abc; w b.u abc; w d.u abc; c
        w a.u ABC; w b.u abd; stale d.u)sh"},
    {"filter: of the user, named by the repository too", ".M", R"sh(
        git config --global filter.up.clean 'tr a-z A-Z'; i; w .gitattributes '*.u filter=up'
        w a.u abc; w b.u abc; c; git config filter.up.required false; stale a.u; w b.u abd)sh"},
    {"filter: of the user, included and conditional", ".M", R"sh(
        w ../inc $'[filter "up"]\n\tclean = tr a-z A-Z\n'
        git config --global "includeIf.gitdir:$PWD/.path" "$PWD/../inc"
        i; w .gitattributes '*.u filter=up'; w a.u abc; w b.u abc; c; w a.u ABC; w b.u abd)sh"},
    {"filter: missing", ".M", R"sh(
        i; w .gitattributes '* filter=none'; w a; w b; c; stale a; w b y)sh"},
    {"filter: missing but required", "refused", R"sh(
        i; w a; w b; w o; c; w .gitattributes '* filter=gone'
        git config --global filter.gone.required true; stale a; w b y)sh"},
    {"filter: of the repository alone", ".M", R"sh(
        git config --global filter.up.clean 'tr a-z A-Z'; i; git config filter.low.clean 'tr A-Z a-z'
        git config filter.low.required true; w .gitattributes $'*.l filter=low\n*.u filter=up\n'
        w fresh.l ABC; stale fresh.l; for f in a.l b.l a.u; do w $f ABC; done; w e.l abc; w s.l abc; c
        w s.l add; git add s.l; w r.l abc; still r.l; stale a.l a.u e.l s.l; w b.l abd)sh",
     ".", "a.l e.l r.l s.l"},
    {"filter: of a submodule alone", "M. ??", R"sh(
        i; sub s; sub t; c; for r in s t; do (cd $r; git config filter.low.clean 'tr A-Z a-z'
        w .gitattributes '*.l filter=low'; w a.l abc; stale a.l; c); done; git add s t; touch s/a.l; w n)sh",
     ".", "s"},

    // --- Names.
    {"names: control, quotes, blanks, globs", ".M ?? !!", R"sh(
        i; n=($'new\nline' $'tab\there' 'qu"ote' "apo'" 'back\slash' '-dash' ' lead' 'trail ' 'a:b'
        ':(glob)x' ':!x' '*' '?' '[a]' '!x' '#x' '~' '$(x)' '%s' $'\x01' $'\x7f' 'a -> b')
        for f in "${n[@]}"; do w "$f"; w "d$f/f"; done; c; for f in "${n[@]}"; do w "$f" 2
        w "d$f/f" 2; w "d$f/new$f"; w "new$f"; done; w .gitignore '\*n'; w '*n')sh"},
    {"names: sorting beside folders", "?? .M", R"sh(
        i; for f in a/b a-b a.b ab a0 'a b' A; do w "$f"; done; c; w a/b 2; w a-b 2; w a.b 2; w a0 2
        git init -q a.; git init -q a-; w a/n; w b; w b.c; w b-/n; w $'\xc3\xa9'; w $'\xf0\x9f\x98\x80'
        w $'\xef\xbd\x81'; w z)sh"},
    {"names: NFC and NFD", ".M ??", R"sh(
        i; w $'caf\xc3\xa9'; w $'cafe\xcc\x81'; c; w $'caf\xc3\xa9' 2; w $'cafe\xcc\x81' 2
        w $'u\xcc\x88'; w $'\xc3\xbc'; git config core.precomposeUnicode true)sh"},
    {"names: not UTF-8", ".M ?? !! A.", R"sh(
        i; n=($'\xff' $'a\xe9b' $'\xc3' $'\xed\xb2\x80' $'\xed\xa0\x80' $'\xf5\x80' $'\xc0\xaf')
        for f in "${n[@]}"; do w "$f"; w "$f.d/$f"; done; c
        for f in "${n[@]}"; do w "$f" 2; w "$f.d/$f" 2; w "n$f"; w "$f.e/$f"; done; git add n*
        w .gitignore $'\xe9*'; w $'\xe9x')sh"},
    {"path of 4,000 bytes", ".M ?? !! A.", R"sh(
        i; w .gitignore '*.o'; d=$(printf %0248d 0)
        p=; for n in {1..15}; do p+=$d/; mkdir $d; cd $d; done; e=$(printf %0255d 0)
        printf 1 > $e; cd - >/dev/null; cd "$OLDPWD"; cd ~/../work; git add -A; git commit -q -m c
        test $(( ${#p} + ${#e} )) -gt 3980; cd $p; printf 2 > $e; printf 1 > n.o; printf 1 > u
        printf 1 > added; cd ~/../work; git add ${p}added)sh"},
    {"path of 4,000 bytes: in a repository far down", ".M ??", R"sh(
        d=$(printf %0250d 0); mkdir -p ../$d/$d; cd ../$d/$d; ln -s $d/$d ../../far; i
        p=; for n in {1..15}; do p+=$d/; mkdir $d; cd $d; done
        printf 1 > f; cd -P ~/../$d/$d; git add -A; git commit -q -m c
        for n in {1..15}; do cd $d; done; printf 2 > f; printf 1 > u; cd -P ~/../$d/$d)sh",
     "../far"},
    {"150 nested folders", ".M ?? !! .D", R"sh(
        i; w .gitignore '*.o'; p=; for n in {1..150}; do p+=d$n/; done; w ${p}f; w ${p}g; c
        w ${p}f 2; w ${p}n; w ${p}x.o; rm ${p}g; w d1/d2/d3/n/n/n)sh"},

    // --- Times.
    {"same size, same second", ".M", R"sh(
        i; w f aaa; w g aaa; still f g; printf bbb > f; touch -d @1700000000 f .git/index)sh"},

    // --- Forms of the index and of the objects.
    {"split index", ".M A. D. ??", R"sh(
        i; for n in {1..20}; do w f$n; done; c; git update-index --split-index; w f1 2; w n
        git rm -q f2; w a; git add a)sh"},
    {"index v4", ".M A. D. ??", R"sh(
        i; w dir/one; w dir/two; w dir/three; c; git update-index --index-version 4; w dir/one 2
        git rm -q dir/two; w dir/a; git add dir/a; w n)sh"},
    {"untracked cache", "?? !! .M", R"sh(
        i; w .gitignore '*.o'; w d/f; c; git update-index --untracked-cache; w d/u; git status >/dev/null
        w d/v; w d/a.o; w n/n; w d/f 2; rm d/u; echo '*.v' >> .git/info/exclude; w d/x.v)sh"},
    {"fsmonitor extension", ".M ?? .D", R"sh(
        i; w f; w g; w h; c; printf '#!/bin/sh\nprintf "t\\0/\\0"' > ../hook; chmod +x ../hook
        git config core.fsmonitor "$PWD/../hook"; git update-index --fsmonitor; git status >/dev/null
        w f 2; w n; rm g)sh"},
    {"SHA-256", ".M A. D. ??", R"sh(
        i --object-format=sha256; w f; w g; c; w f 2; git rm -q g; w a; git add a; w n)sh"},

    // --- What cannot be read, or is no file.
    {"unreadable file", ".M ??", R"sh(
        i; w a; w b; w d/f; w .gitignore '*.o'; c; stale a; w b 2; w n; w d/f 2; chmod 000 a n d/f
        if cat a 2>/dev/null; then echo 'mode 000 can be read: run this without root'"'"'s powers,' \
        'setpriv --bounding-set -dac_override,-dac_read_search TEST' >&2; exit 1; fi)sh"},
    {"unreadable folder", "??", R"sh(
        i; w d/f; w e/f; w o; w s/f; c; w e/f 2; w n/f; w e/n; w m; chmod 000 d e n; w s/f 2
        chmod 400 s; if ls d 2>/dev/null; then echo 'mode 000 can be listed: run this without' \
        'root'"'"'s powers, setpriv --bounding-set -dac_override,-dac_read_search TEST' >&2; exit 1; fi)sh"},
    {"unreadable folder: unreadable ignore file", "?? .M", R"sh(
        i; w f; c; w .gitignore '*.o'; w d/.gitignore '*.o'; w a.o; w d/b.o; w f 2
        chmod 000 d/.gitignore; ! cat d/.gitignore 2>/dev/null)sh"},
    {"FIFO and socket", "?? .M .D", R"sh(
        i; w .gitignore '*.o'; w f; w g; w h; w o; c; mkfifo p q.o d 2>/dev/null; mkdir e; mkfifo e/p
        perl -MIO::Socket::UNIX -e 'IO::Socket::UNIX->new(Local => $_, Listen => 1) || die
            for "s", "e/s"'; rm f; mkfifo f; rm g; perl -MIO::Socket::UNIX -e '
            IO::Socket::UNIX->new(Local => "g", Listen => 1) || die'; rm h; w n; w o 2)sh"},

    // --- What the user set.
    {"settings of the user", ".M ?? !! D. A. UU", R"sh(
        for s in status.showUntrackedFiles=no status.renames=copies status.relativePaths=true \
            status.short=true status.branch=true status.showStash=true color.ui=always \
            color.status=always core.quotePath=false column.ui=always column.status=always \
            log.showSignature=true log.date=iso diff.renames=copies diff.noprefix=true \
            diff.mnemonicPrefix=true core.preloadIndex=false status.submoduleSummary=true \
            core.pager=false advice.statusUoption=false i18n.logOutputEncoding=latin1 \
            merge.renames=false status.aheadBehind=false core.commentChar=%; do
            git config --global ${s%%=*} ${s#*=}; done
        i; for f in a b d e; do w $f "$(seq 30) $f"; done; w .gitignore '*.o'; c; git mv a r; w b 2
        w n/n; w x.o; w $'\xc3\xa9'; stages d 1 2 3; w e 2; git add e; w e 3)sh"},
};

} // namespace

const std::vector<Scenario>& scenarios() {
    return table;
}

void runScript(const GitSandbox& sandbox, std::string_view script) {
    const auto result =
        sandbox.run({"bash", "-c", std::string(prelude).append(script)}, sandbox.work());
    if (result.exitCode != 0)
        throw std::runtime_error("the script exited " + std::to_string(result.exitCode) + ": " +
                                 result.errors + result.output);
}

ProcessResult runQuendo(const GitSandbox& sandbox, const std::vector<std::string>& arguments,
                        const std::map<std::string, std::string>& variables) {
    std::vector<std::string> command{QUENDO_PROGRAM};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return sandbox.run(command, sandbox.root(), variables);
}

ProcessResult shell(const GitSandbox& sandbox, const std::string& script) {
    return sandbox.run({"bash", "-c", "q() { \"$0\" \"$@\"; }\n" + script, QUENDO_PROGRAM},
                       sandbox.work());
}

void expectRefusals(const GitSandbox& sandbox,
                    const std::vector<std::pair<std::string, std::string>>& rows) {
    for (const auto& [command, words] : rows) {
        const auto result = shell(sandbox, command);
        EXPECT_EQ(notRefused(result), "") << command;
        EXPECT_TRUE(result.errors.starts_with("quendo: ")) << result.errors;
        EXPECT_THAT(result.errors, HasSubstr(words)) << command;
    }
}

std::map<std::string, std::string> withGit(const GitSandbox& sandbox, const std::string& script) {
    runScript(sandbox, "w ../bin/git \"#!/bin/sh\nREAL=$(command -v git)\n\"; chmod +x ../bin/git");
    std::ofstream(sandbox.root() / "bin/git", std::ios::app) << script << "\n";
    return {{"PATH", (sandbox.root() / "bin").native() + ":/usr/bin:/bin"}};
}

Records recordsIn(std::string_view output, char end, std::size_t columns) {
    Records result;
    for (std::size_t at = 0; at < output.size(); at = output.find(end, at) + 1) {
        const auto record = output.substr(at, output.find(end, at) - at);
        if (record.size() < columns + 2 || !std::strchr(" \t", record[columns]) ||
            at + record.size() == output.size())
            throw std::runtime_error("not a record: " + std::string(record));
        result.push_back(
            {std::string(record.substr(0, columns)), std::string(record.substr(columns + 1))});
        std::ranges::replace(result.back().columns, ' ', '.');
    }
    return result;
}

std::vector<std::string> recordsOfQuendo(const GitSandbox& sandbox) {
    std::vector<std::string> records;
    const auto result = shell(sandbox, "q status --porcelain -z --ignored");
    for (const auto& [columns, path] : recordsIn(result.output))
        records.push_back(columns + " " + path);
    std::ranges::sort(records);
    EXPECT_EQ(result.errors, "");
    return records;
}

} // namespace quendo::test
