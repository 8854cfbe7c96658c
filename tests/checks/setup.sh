#!/bin/bash
# setup.sh SOURCE: how ./run and ./test install packages and report progress, with an apt, a dpkg and
# a sudo that only record their calls. Root runs the cases as an ordinary user too.
set -u
failures=0
# Where another user may look in, which need not be so for the sources.
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
mkdir -p "$scratch"/{bin,root/scripts}
chmod 755 "$scratch"
cp "$1/scripts/setup.sh" "$scratch/root/scripts/"
printf '%s\n' '# comment' 'gee run' 'make-it   run' 'tester test' 'formatter ci' \
    >"$scratch/root/scripts/packages.txt"

cat >"$scratch/bin/dpkg-query" <<'END'
#!/bin/bash
echo dpkg-query >>"$STATE/calls"
sed 's/$/ installed/' "$STATE/installed"
echo 'tester config-files'
END
cat >"$scratch/bin/apt-get" <<'END'
#!/bin/bash
echo "apt-get $*" >>"$STATE/calls"
case " $* " in
*" update "*) touch "$STATE/lists" ;;
*" -s "*)
    [[ -f $STATE/lists ]] || { echo "E: Unable to locate package gee"; exit 100; }
    cat "$STATE/plan" ;;
*)
    for word; do [[ $word == -* || $word == *=* || $word == install ]] || echo "$word"; done \
        >>"$STATE/installed" ;;
esac
END
printf '%s\n' '#!/bin/bash' '[[ $1 == -n && -f $STATE/permitted ]] || exit 1' 'exec "${@:2}"' \
    >"$scratch/bin/sudo"
chmod +x "$scratch"/bin/*

user=()
# begin: a machine that has only the package "gee" and permits sudo.
begin() {
    export STATE=$scratch/state
    rm -rf "$STATE" "$scratch/root/build"
    mkdir "$STATE"
    echo gee >"$STATE/installed"
    touch "$STATE/calls" "$STATE/lists" "$STATE/permitted"
    echo "Inst make-it" >"$STATE/plan"
    mkdir -p "$scratch/root/build/.setup"
    chmod -R a+rwX "$scratch/root/build" "$STATE"
}
# expect CASE CODE MESSAGE CALLS WHO...: runs ensurePackages WHO... as $user
expect() {
    local name=$1 code=$2 message=$3 calls=$4 got called status=0
    shift 4
    got=$(PATH=$scratch/bin:$PATH "${user[@]}" bash -c 'root=$0; set -u
        . "$root/scripts/setup.sh"; ensurePackages "$@"' "$scratch/root" "$@" 2>&1) || status=$?
    called=$(sed 's/ -o [^ ]*//; s/ -y --no-install-recommends install/ install/' "$STATE/calls")
    [[ $status == "$code" && $got == $message && $called == "$calls" ]] || {
        printf '%s: exit %s\n  said: %s\n  called: %s\n' "$name" "$status" "$got" "$called" >&2
        failures=$((failures + 1))
    }
    : >"$STATE/calls"
}

everyone() {
    begin
    expect "installs what is missing" 0 \
        "quendo: missing packages: make-it"$'\n'"*apt-get install (1 packages)" \
        $'dpkg-query\napt-get -s install make-it\napt-get --no-remove install make-it\ndpkg-query' run
    expect "asks nothing when nothing changed" 0 "" "" run
    expect "a purged package is missing" 0 "quendo: missing packages: tester"$'\n'* \
        $'dpkg-query\napt-get -s install tester\napt-get --no-remove install tester\ndpkg-query' run test
    begin
    rm "$STATE/lists"
    expect "fetches the lists of a fresh machine" 0 \
        "*apt-get update"$'\n'"*apt-get install (1 packages)" \
        $'dpkg-query\napt-get -s install make-it\napt-get update\napt-get -s install make-it
apt-get --no-remove install make-it\ndpkg-query' run

    begin
    printf 'Remv libother-dev [1]\nRemv libmore-dev [1]\nInst make-it\n' >"$STATE/plan"
    expect "removes nothing" 1 "*apt would have to remove: libother-dev libmore-dev *" \
        $'dpkg-query\napt-get -s install make-it' run
}
everyone
if ((EUID == 0)); then
    user=(setpriv --reuid 65534 --regid 65534 --clear-groups)
    everyone
fi

begin
rm "$STATE/permitted"
expect "not permitted" 1 "*missing packages: make-it"$'\n'"*needs root; run: sudo apt-get install*" \
    "dpkg-query" run

got=$(root=$scratch/root; . "$root/scripts/setup.sh"; secondsBetweenLines=0
    quietly "$scratch/log" printf '[%s/9] step\n' 1 2 2>&1; quietly "$scratch/log" false || echo failed)
[[ $got == $'quendo: built 1 of 9 steps\nquendo: built 2 of 9 steps\nfailed' ]] ||
    { echo "progress: $got" >&2; failures=$((failures + 1)); }
exit $((failures > 0))
