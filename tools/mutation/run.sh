#!/usr/bin/env bash
# Mutation runner: applies each deliberate fault of mutants.txt, one at a time, to a scratch copy
# of the tree, rebuilds incrementally and runs the test suite, and reports which faults the suite
# catches. The source tree is never modified.
#
# Usage: tools/mutation/run.sh [options] [ID ...]
#   ID ...            run only these mutants (also --only ID,ID,...); default all
#   --preset NAME     configure/build/test preset: default (default) or asan
#   --timeout SEC     time limit of one ctest run, also passed to ctest as the per-test limit;
#                     default: three times the unmutated run's time, at least 120 s (so that a
#                     busy machine does not turn slow runs into time-outs). A mutant that hangs
#                     the suite counts as caught by time-out
#   --repeat N        ctest --repeat until-pass:N: a test must fail N times in a row to count
#                     (default 2), so that a one-off flake does not catch a mutant
#   --flaky REGEX     tests known to be flaky; a catch by one of them is confirmed by up to
#                     --confirm more runs of that test alone, and if it passes once the suite is
#                     run again without it. Tests that needed a retry in the unmutated run are
#                     treated as flaky as well.
#   --confirm N       runs of a flaky test that must all fail to confirm a catch (default 5)
#   --jobs N          ctest parallel level (default: the preset's)
#   --tests REGEX     run only the ctest entries matching REGEX (to see what one group of tests
#                     catches on its own)
#   --src DIR         tree to mutate (default: the repository holding this script); tracked and
#                     untracked-but-not-ignored files are copied, uncommitted edits included
#   --mutants FILE    mutant list (default: mutants.txt beside this script)
#   --logs DIR        keep each mutant's build and ctest logs in DIR
#   --check           only check that every mutant applies exactly once to the source tree
#
# Output: one line per mutant (id, verdict, first failing test, seconds), then a summary
# "caught N of M applicable". Verdicts: caught, caught-timeout, survived, not-applicable,
# build-failed, error (ctest failed without a failing test). Only caught and survived mutants
# count as applicable. Exit status: 0 after a complete
# run, 1 on a usage or set-up error, 2 when the unmutated suite fails.
set -uo pipefail

here=$(cd "$(dirname "$0")" && pwd)
src=$(cd "$here/../.." && pwd)
mutants="$here/mutants.txt"
preset=default
tmo=''
repeat=2
confirm=5
flaky_re=''
jobs=()
logdir=''
check_only=0
only=()
cmdline="$0 $*"

die() { echo "run.sh: $*" >&2; exit 1; }

while [ $# -gt 0 ]; do
    case "$1" in
        --preset) preset=${2:?}; shift 2 ;;
        --timeout) tmo=${2:?}; shift 2 ;;
        --repeat) repeat=${2:?}; shift 2 ;;
        --flaky) flaky_re=${2:?}; shift 2 ;;
        --confirm) confirm=${2:?}; shift 2 ;;
        --jobs) jobs+=(-j "${2:?}"); shift 2 ;;
        --tests) jobs+=(-R "${2:?}"); shift 2 ;;
        --src) src=$(cd "${2:?}" && pwd) || exit 1; shift 2 ;;
        --mutants) mutants=$(realpath "${2:?}") || exit 1; shift 2 ;;
        --logs) mkdir -p "${2:?}" && logdir=$(cd "$2" && pwd) || exit 1; shift 2 ;;
        --only) IFS=, read -r -a ids <<<"${2:?}"; only+=("${ids[@]}"); shift 2 ;;
        --check) check_only=1; shift ;;
        -h | --help) sed -n '2,/^set -uo/p' "$0" | sed '$d; s/^# \{0,1\}//'; exit 0 ;;
        -*) die "unknown option $1" ;;
        *) only+=("$1"); shift ;;
    esac
done
case "$preset" in default | asan) ;; *) die "preset must be default or asan" ;; esac
[[ "$tmo" =~ ^[0-9]*$ && "$repeat" =~ ^[1-9][0-9]*$ && "$confirm" =~ ^[1-9][0-9]*$ ]] ||
    die "--timeout, --repeat and --confirm take positive numbers"
[ -f "$mutants" ] || die "no mutant list $mutants"

work=$(mktemp -d /tmp/s2e-mutation.XXXXXX) || die "cannot make a scratch directory"
tree="$work/src"
child=''
cleanup() {
    trap - EXIT INT TERM
    if [ -n "$child" ]; then
        # timeout(1) leads its own process group and passes the signal on to all of it.
        kill -TERM "$child" 2>/dev/null
        for _ in $(seq 30); do kill -0 "$child" 2>/dev/null || break; sleep 0.5; done
        kill -KILL "$child" 2>/dev/null
        wait "$child" 2>/dev/null
    fi
    rm -rf "$work"
}
trap cleanup EXIT
trap 'echo "run.sh: interrupted" >&2; exit 130' INT TERM

# The helper: mutant list parsing, text replacement, ctest log parsing.
helper="$work/helper.py"
cat >"$helper" <<'PY'
import re, sys

def load(path):
    muts, cur, part = [], None, None
    for n, line in enumerate(open(path, encoding="utf-8").read().split("\n"), 1):
        if cur is None:
            if line.startswith("@@ "):
                f = line[3:].split()
                if len(f) != 2:
                    sys.exit(f"{path}:{n}: expected '@@ <id> <file>'")
                cur = {"id": f[0], "file": f[1], "desc": "", "orig": [], "repl": []}
            elif line.strip() and not line.startswith("#"):
                sys.exit(f"{path}:{n}: text outside a mutant block")
            continue
        if part is None and line.startswith(": "):
            cur["desc"] = line[2:]
        elif part is None and line == "<<<":
            part = "orig"
        elif part == "orig" and line == "===":
            part = "repl"
        elif part == "repl" and line == ">>>":
            muts.append(cur)
            cur, part = None, None
        elif part:
            cur[part].append(line)
        else:
            sys.exit(f"{path}:{n}: unexpected line in mutant {cur['id']}")
    if cur is not None:
        sys.exit(f"{path}: mutant {cur['id']} is not closed with >>>")
    ids = [m["id"] for m in muts]
    dup = {i for i in ids if ids.count(i) > 1}
    if dup:
        sys.exit(f"{path}: duplicate ids {sorted(dup)}")
    return {m["id"]: m for m in muts}, ids

def cmd_list(path, *wanted):
    muts, ids = load(path)
    for w in wanted:
        if w not in muts:
            sys.exit(f"unknown mutant id {w}")
    for i in (wanted or ids):
        m = muts[i]
        print(f"{i}\t{m['file']}\t{m['desc']}")

def cmd_apply(path, mid, root, dry):
    m = load(path)[0][mid]
    target = f"{root}/{m['file']}"
    try:
        text = open(target, encoding="utf-8").read()
    except OSError:
        print("file missing")
        return 3
    orig, repl = "\n".join(m["orig"]), "\n".join(m["repl"])
    count = text.count(orig)
    if count != 1:
        print(f"text found {count} times")
        return 3
    if dry != "dry":
        open(target, "w", encoding="utf-8").write(text.replace(orig, repl))
    return 0

RESULT = re.compile(r"Test\s+#\d+:\s+(\S+)\s+\.*\s*(.*?)\s+[\d.]+\s+sec\s*$")
START = re.compile(r"^\s*Start\s+\d+:\s+(\S+)\s*$")

def results(log):
    final, order, attempts, started = {}, {}, {}, {}
    for n, line in enumerate(open(log, errors="replace")):
        r = RESULT.search(line)
        s = START.match(line)
        if r:
            name, status = r.group(1), r.group(2)
            final[name], order[name] = status, n
            attempts.setdefault(name, []).append(status)
        elif s:
            started[s.group(1)] = n
    running = [t for t, n in sorted(started.items(), key=lambda i: i[1]) if n > order.get(t, -1)]
    return final, order, attempts, running

def cmd_first_failure(log):
    # The test whose final attempt failed first; a test passing on a retry did not fail.
    final, order, _, running = results(log)
    # A test still being retried when the run was stopped has not failed for good.
    bad = [(order[t], t, s) for t, s in final.items()
           if s != "Passed" and "Not Run" not in s and t not in running]
    if bad:
        _, name, status = min(bad)
        print(f"{name}\t{'timeout' if 'Timeout' in status else 'failed'}")
        return
    # No test failed: the run was cut short; name the tests (or retries) still running.
    print(f"{','.join(running) or '-'}\tkilled")

def cmd_retried(log):
    for name, a in results(log)[2].items():
        if any(s != "Passed" for s in a):
            print(name)

sys.exit(globals()["cmd_" + sys.argv[1].replace("-", "_")](*sys.argv[2:]))
PY
helper() { python3 "$helper" "$@"; }

selected=$(helper list "$mutants" "${only[@]}") || exit 1

if [ "$check_only" = 1 ]; then
    bad=0
    while IFS=$'\t' read -r id file desc; do
        if why=$(helper apply "$mutants" "$id" "$src" dry); then
            printf '%-15s ok              %s\n' "$id" "$file"
        else
            printf '%-15s not-applicable  %s: %s\n' "$id" "$file" "$why"
            bad=$((bad + 1))
        fi
    done <<<"$selected"
    echo "$(wc -l <<<"$selected") mutants, $bad not applicable"
    exit 0
fi

# ---- scratch tree, configured and built once --------------------------------------------------
git -C "$src" rev-parse --git-dir >/dev/null 2>&1 || die "$src is not a git work tree"
mkdir -p "$tree"
(cd "$src" && git ls-files -z --cached --others --exclude-standard |
    while IFS= read -r -d '' f; do [ -e "$f" ] && printf '%s\0' "$f"; done |
    tar --null -T - -cf -) | tar -xf - -C "$tree" || die "cannot copy the tree"
revision=$(git -C "$src" rev-parse --short HEAD)
[ -z "$(git -C "$src" status --porcelain --untracked-files=no)" ] || revision="$revision+local-edits"

# Runs ctest in the scratch tree under a time limit; the log goes to $1.
run_ctest() {
    local log=$1
    shift
    (cd "$tree" && exec timeout -k 15 "$run_limit" ctest --preset "$preset" --timeout "$run_limit" \
        "${jobs[@]}" "$@") >"$log" 2>&1 &
    child=$!
    wait "$child"
    local rc=$?
    child=''
    return $rc
}
build() { (cd "$tree" && cmake --build --preset "$preset") >"$1" 2>&1; }
regex_quote() { sed 's/[].[^$*+?(){}|\\]/\\&/g' <<<"$1"; }

start_all=$(date +%s)
echo "# Mutation run: $(date -u '+%Y-%m-%d %H:%M UTC'), tree $revision, preset $preset"
echo "# command: $cmdline"

echo "run.sh: configuring and building the unmutated tree" >&2
(cd "$tree" && cmake --preset "$preset") >"$work/configure.log" 2>&1 ||
    { cat "$work/configure.log" >&2; die "configure failed"; }
build "$work/build.log" || { tail -40 "$work/build.log" >&2; die "the unmutated tree does not build"; }

echo "run.sh: running the unmutated suite" >&2
t0=$(date +%s)
run_limit=$((${tmo:-300} * 4))
# A generous retry count here: this run only has to pass, so that a flaky test cannot stop the
# whole measurement; tests that needed a retry are recorded as flaky.
if ! run_ctest "$work/baseline.log" --repeat "until-pass:$((repeat + confirm))"; then
    tail -40 "$work/baseline.log" >&2
    echo "run.sh: the unmutated suite fails; no mutant can be judged" >&2
    exit 2
fi
auto_flaky=$(helper retried "$work/baseline.log")
base_secs=$(($(date +%s) - t0))
[ -n "$tmo" ] || tmo=$((base_secs * 3 > 120 ? base_secs * 3 : 120))
run_limit=$tmo
echo "# unmutated suite: passed in ${base_secs}s" \
    "($(grep -Eo '[0-9]+ tests failed out of [0-9]+' "$work/baseline.log" | grep -Eo '[0-9]+$') tests)"
[ -z "$auto_flaky" ] || echo "# needed a retry in the unmutated run (treated as flaky):" $auto_flaky
[ -z "$flaky_re" ] || echo "# flaky by option: $flaky_re"
echo "# per ctest run: time-out ${tmo}s, a test fails only after $repeat failed attempts in a row"
echo "#"
printf '%-15s %-15s %-40s %s\n' "# id" verdict "first failing test" seconds

is_flaky() {
    grep -qxF -- "$1" <<<"$auto_flaky" && return 0
    [ -n "$flaky_re" ] && [[ "$1" =~ $flaky_re ]]
}

caught=0 timeouts=0 survived=0 buildfail=0 napp=0 errors=0
survivors=() failures=() inapplicable=() errored=()
while IFS=$'\t' read -r -u 3 id file desc; do
    t0=$(date +%s)
    verdict='' first='-' note=''
    cp -p "$tree/$file" "$work/original" 2>/dev/null
    if ! why=$(helper apply "$mutants" "$id" "$tree" write); then
        verdict=not-applicable note=$why
        napp=$((napp + 1)) inapplicable+=("$id ($file: $why)")
    elif ! build "$work/mutant-build.log"; then
        verdict=build-failed
        buildfail=$((buildfail + 1)) failures+=("$id: $desc")
        [ -z "$logdir" ] || cp "$work/mutant-build.log" "$logdir/$id.build.log"
    else
        excluded=()
        for _ in 1 2 3; do
            run_ctest "$work/mutant.log" --stop-on-failure --repeat "until-pass:$repeat" \
                "${excluded[@]}"
            rc=$?
            if [ "$rc" = 0 ]; then
                verdict=survived
                break
            fi
            IFS=$'\t' read -r first how <<<"$(helper first-failure "$work/mutant.log")"
            # A test that failed decides, even if the run was stopped later while another test
            # still ran; without one, the run itself hung.
            if [ "$how" = timeout ]; then
                verdict=caught-timeout note="the test hit the ${tmo}s limit"
                break
            elif [ "$how" = killed ] && { [ "$rc" = 124 ] || [ "$rc" = 137 ]; }; then
                verdict=caught-timeout note="run stopped after ${tmo}s, still running"
                break
            elif [ "$how" = killed ]; then
                verdict=error first='-' note="ctest ended with status $rc and no failed test"
                break
            fi
            verdict=caught
            if is_flaky "$first"; then
                if run_ctest "$work/confirm.log" -R "^$(regex_quote "$first")\$" \
                    --repeat "until-pass:$confirm"; then
                    # It passes under this mutant too: a flake. Judge without it.
                    note="flaky $first passed on a rerun and was left out"
                    excluded=(-E "^$(regex_quote "$first")\$")
                    verdict='' first='-'
                    continue
                fi
                note="flaky test confirmed by $confirm more failing runs"
            fi
            break
        done
        [ -n "$verdict" ] || verdict=survived
        [ -z "$logdir" ] || cp "$work/mutant.log" "$logdir/$id.ctest.log"
        case "$verdict" in
            caught) caught=$((caught + 1)) ;;
            caught-timeout) caught=$((caught + 1)) timeouts=$((timeouts + 1)) ;;
            survived) survived=$((survived + 1)) survivors+=("$id: $desc") ;;
            error) errors=$((errors + 1)) errored+=("$id: $note") ;;
        esac
    fi
    # Restore; the next build recompiles the file from its original text.
    [ -f "$work/original" ] && cp "$work/original" "$tree/$file" && rm -f "$work/original"
    printf '%-15s %-15s %-40s %4d%s\n' "$id" "$verdict" "$first" "$(($(date +%s) - t0))" \
        "${note:+   ($note)}"
done 3<<<"$selected"

total=$(($(date +%s) - start_all))
applicable=$((caught + survived))
echo "#"
echo "caught $caught of $applicable applicable ($timeouts by time-out; $survived survived;" \
    "$buildfail build failed; $napp not applicable; $errors ctest errors)"
for s in "${survivors[@]}"; do echo "# survived: $s"; done
for s in "${failures[@]}"; do echo "# build failed: $s"; done
for s in "${inapplicable[@]}"; do echo "# not applicable: $s"; done
for s in "${errored[@]}"; do echo "# ctest error: $s"; done
printf '# total time %dm%02ds\n' $((total / 60)) $((total % 60))
