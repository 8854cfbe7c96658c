# What ./run, ./test and .ci/run share: sourced by them with `root` set to the project's folder.
# Everything here speaks on standard error; standard output belongs to what is run in the end.

# Estimates. Processor seconds for one step of a first build on a bare machine: the 240 steps of the
# preset debug took 1,000 s of them, the 144 steps of release 580 s. A later build has fewer steps.
declare -A secondsPerStep=([debug]=4 [release]=4)
# Processor seconds for all tests: 2 processors took 4 minutes, and ctest recorded 358 s in sum.
secondsOfTests=480
processors=$(nproc)
# How often quietly() reports progress.
secondsBetweenLines=20

say() { printf 'quendo: %s\n' "$*" >&2; }
die() { say "$@"; exit 1; }

# packagesOf WHO...: the packages that these lines of packages.txt name.
packagesOf() {
    local package who wanted=" $* "
    while read -r package who; do
        [[ $package == '#'* || -z $who || $wanted != *" $who "* ]] || printf '%s\n' "$package"
    done <"$root/scripts/packages.txt"
}

# missingOf PACKAGE...: those that are not installed.
missingOf() {
    local installed package
    installed=$(dpkg-query -W -f '${Package} ${db:Status-Status}\n' "$@" 2>/dev/null)
    for package; do
        [[ $'\n'$installed$'\n' == *$'\n'"$package installed"$'\n'* ]] || printf '%s\n' "$package"
    done
}

apt() { LC_ALL=C DEBIAN_FRONTEND=noninteractive apt-get "$@"; }
aptAsRoot() {
    local words=(env LC_ALL=C DEBIAN_FRONTEND=noninteractive apt-get -o DPkg::Lock::Timeout=300 "$@")
    if ((EUID == 0)); then "${words[@]}"; else sudo -n "${words[@]}"; fi </dev/null
}

installMissing() {
    local log=$root/build/.setup/apt.log plan
    local install=(-y --no-install-recommends install "$@")
    say "missing packages: $*"
    command -v apt-get >/dev/null ||
        die "there is no apt-get here to install them with; install them yourself and start again"
    ((EUID == 0)) || sudo -n true 2>/dev/null ||
        die "installing them needs root; run: sudo apt-get install --no-remove $*"

    # The lists of a fresh machine are empty, and old ones name files that are gone.
    local updated=
    if ! plan=$(apt -s "${install[@]}" 2>&1); then
        say "apt-get update"
        aptAsRoot update >"$log" 2>&1 || { cat "$log" >&2; die "apt-get update failed"; }
        updated=1
        plan=$(apt -s "${install[@]}" 2>&1) ||
            { printf '%s\n' "$plan" >&2; die "apt cannot install the missing packages"; }
    fi
    local removed
    removed=$(awk '$1 == "Remv" { printf "%s%s", separator, $2; separator = " " }' <<<"$plan")
    [[ -z $removed ]] ||
        die "nothing was installed, because apt would have to remove: $removed" \
            "(the development files of two Boost versions exclude each other);" \
            "remove these yourself if you can do without them, and start again"

    say "apt-get install ($(grep -c ^Inst <<<"$plan") packages)"
    if ! aptAsRoot --no-remove "${install[@]}" >"$log" 2>&1; then
        if [[ $updated ]] || ! aptAsRoot update >>"$log" 2>&1 ||
            ! aptAsRoot --no-remove "${install[@]}" >>"$log" 2>&1; then
            cat "$log" >&2
            die "apt-get install failed"
        fi
    fi
}

# ensurePackages WHO...: installs what is missing. Asks dpkg only when the list of packages or what
# is installed on this machine is not what it was when nothing was missing.
ensurePackages() {
    if ! command -v dpkg-query >/dev/null; then
        say "no dpkg here: the packages of scripts/packages.txt are taken to be there"
        return
    fi
    local stamp=$root/build/.setup/packages-${*: -1} state before=
    state="$(stat -c '%i %y' /var/lib/dpkg/status) $(<"$root/scripts/packages.txt")"
    [[ -f $stamp ]] && before=$(<"$stamp")
    [[ $before == "$state" ]] && return

    mkdir -p "$root/build/.setup"
    local lock packages missing
    exec {lock}>"$root/build/.setup/lock"
    flock "$lock"
    mapfile -t packages < <(packagesOf "$@")
    mapfile -t missing < <(missingOf "${packages[@]}")
    if ((${#missing[@]})); then
        installMissing "${missing[@]}"
        mapfile -t missing < <(missingOf "${packages[@]}")
        ((${#missing[@]} == 0)) || die "still missing after the installation: ${missing[*]}"
    fi
    printf '%s\n' "$(stat -c '%i %y' /var/lib/dpkg/status) $(<"$root/scripts/packages.txt")" >"$stamp"
    exec {lock}>&-
}

# Whether standard error is a terminal, where programs show their own progress.
onTerminal() { [[ -t 2 && -z ${CI:-} ]]; }

# quietly LOG COMMAND...: runs COMMAND. On a terminal its output is shown. Elsewhere the output goes to
# LOG, a line every 20 seconds or so reports how many of ninja's steps are done, and LOG is shown when
# COMMAND fails.
quietly() {
    local log=$1 line status due=$((SECONDS + secondsBetweenLines))
    shift
    if onTerminal; then
        "$@" >&2 </dev/null
        return
    fi
    "$@" 2>&1 </dev/null | tee "$log" | while IFS= read -r line; do
        ((SECONDS >= due)) && [[ $line =~ ^\[([0-9]+)/([0-9]+)\] ]] || continue
        say "built ${BASH_REMATCH[1]} of ${BASH_REMATCH[2]} steps"
        due=$((SECONDS + secondsBetweenLines))
    done
    status=${PIPESTATUS[0]}
    ((status == 0)) || cat "$log" >&2
    return "$status"
}

# about SECONDS: the time for people, rounded up.
about() {
    if (($1 < 90)); then echo "about $((($1 + 9) / 10 * 10)) s"; else echo "about $((($1 + 59) / 60)) min"; fi
}

# build PRESET: configures when that is due and builds all of it, in build/PRESET. One at a time for
# each preset. A folder that was copied here from elsewhere is configured afresh.
build() {
    local preset=$1 folder=$root/build/$1 configured state before= fresh=--fresh plan steps lock
    mkdir -p "$folder"
    exec {lock}>"$folder/.lock"
    if ! flock -n "$lock"; then
        say "waiting for another build in ${folder#"$root"/}"
        flock "$lock"
    fi
    configured=$folder/.configured
    state="$root $preset $(<"$root/CMakePresets.json")"
    [[ -f $configured ]] && before=$(<"$configured")
    if [[ $before != "$state" ]]; then
        grep -qxF "CMAKE_CACHEFILE_DIR:INTERNAL=$folder" "$folder/CMakeCache.txt" 2>/dev/null && fresh=
        (cd "$root" && quietly "$folder/configure.log" \
            cmake $fresh --preset "$preset" -B "$folder") ||
            die "configuring failed"
        printf '%s\n' "$state" >"$configured"
    fi
    plan=$(ninja -C "$folder" -n 2>&1 | tail -n 1)
    if [[ $plan != "ninja: no work to do." ]]; then
        steps=0
        [[ $plan =~ ^\[[0-9]+/([0-9]+)\] ]] && steps=${BASH_REMATCH[1]}
        say "building ($preset): $steps steps," \
            "$(about $((steps * ${secondsPerStep[$preset]:-3} / processors))) with $processors processors"
        quietly "$folder/build.log" ninja -C "$folder" || die "building failed"
    fi
    exec {lock}>&-
}

# announceTests FOLDER: announces how long all tests will take, from the times that ctest recorded in
# that build folder.
announceTests() {
    local costs=$1/Testing/Temporary/CTestCostData.txt seconds=0
    [[ ! -f $costs ]] ||
        seconds=$(awk '/^---/ { exit } { sum += $3 } END { print int(sum) }' "$costs")
    ((seconds)) && seconds=$((seconds * 4 / 3)) || seconds=$secondsOfTests
    say "running the tests: $(about $((seconds / processors))) with $processors processors"
}

# Words to put before a command so that it runs without root's power to read and write whatever it
# likes; none when there is no such power. A file without any permission shows that they work.
# Sets `plain`.
dropPowers() {
    local probe
    plain=()
    probe=$(mktemp)
    chmod 000 "$probe"
    if cat "$probe" >/dev/null 2>&1; then
        # exec by root computes the powers anew from the bounding set and the inheritable ones.
        plain=(setpriv --bounding-set -dac_override,-dac_read_search
            --inh-caps -dac_override,-dac_read_search)
        if ! "${plain[@]}" true || "${plain[@]}" cat "$probe" >/dev/null 2>&1; then
            rm -f "$probe"
            die "cannot run the tests without root's powers over files; run them as another user"
        fi
    fi
    rm -f "$probe"
}
