#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# frame-test.sh: tests/full.sh with parts of its own in a repository of its own: what it runs, keeps, prints and writes.
set -euo pipefail
source=$(cd "$(dirname "$0")/../.." && pwd)
if ! command -v git >/dev/null; then
    echo 'skipped: there is no git'
    exit 77
fi
tree=$(mktemp -d)
trap 'rm -rf "$tree"' EXIT
failed=0

mkdir -p "$tree/tests/full" "$tree/docs"
cp "$source/tests/full.sh" "$tree/tests/"
cp "$source/tests/full/results.py" "$source/tests/full/figures.py" "$tree/tests/full/"
cd "$tree"
cat >tests/full/parts.txt <<'END'
# a comment
good | a | what is right | tests/full/good.py
bad  | a | what is wrong | tests/full/bad.py 7
dead | a | what ends early | echo run >>runs.dead; exit 3
+rare | b | what takes a day | echo run >>runs.rare; exit 4
+ping | a | what waits for another | touch build/ping; tests/full/await.sh pong
+pong | b | what waits for another | touch build/pong; tests/full/await.sh ping
+slow | b | what lasts | echo $$ >build/slow.pid; exec sleep 300
END
cat >tests/full/good.py <<'END'
#!/usr/bin/env python3
import sys
import figures
open("runs.good", "a").write("run\n")
sys.exit(figures.report([figures.row("apples", "3 of 3", True, "all")], ["An apple a day."]))
END
cat >tests/full/bad.py <<'END'
#!/usr/bin/env python3
import sys
import figures
open("runs.bad", "a").write("run\n")
sys.exit(figures.report([figures.row("pears", sys.argv[1], False, 8), figures.row("a|b", 1, True)]))
END
cat >tests/full/await.sh <<'END'
for _ in $(seq 200); do
    [ ! -e "build/$1" ] || exec tests/full/good.py
    sleep 0.05
done
END
chmod +x tests/full/*.py tests/full/*.sh
printf 'build/\n__pycache__/\nruns.*\n' >.gitignore

commit_all() {
    git add -A
    GIT_CONFIG_GLOBAL=/dev/null git -c user.name=test -c user.email=test@test.example commit -q -m "$1"
    git log -1 --format=%h
}

# expect NAME EXIT_CODE TEXT ARGUMENT...: full.sh ends so, and prints what the text is, apart from durations and what has been changed.
expect() {
    local name=$1 code=$2 text=$3 status=0 printed
    shift 3
    printed=$(tests/full.sh "$@" 2>&1 | sed -E 's/, [0-9]+ s, commit/, SECONDS, commit/; s/[+][0-9a-f]{7}:/+CHANGES:/'; exit "${PIPESTATUS[0]}") || status=$?
    if [ "$status" != "$code" ] || [ "$printed" != "$text" ]; then
        printf '%s: expected exit code %s and\n%s\ngot %s and\n%s\n' "$name" "$code" "$text" "$status" "$printed"
        failed=1
    fi
}

# expect_runs PART NUMBER: so often the part has been run.
expect_runs() {
    local runs=0
    [ ! -e "runs.$1" ] || runs=$(wc -l <"runs.$1")
    [ "$runs" = "$2" ] || { echo "$1 was run $runs times, not $2"; failed=1; }
}

git -c init.defaultBranch=main init -q
first=$(commit_all first)
table="part  what             figure                             limit  result
good  apples           3 of 3                             all    ok
bad   pears            7                                  8      FAILED
bad   a|b              1                                         ok
dead  end of the part  exit code 3, there are no figures  0      FAILED"
runs() {
    printf '%s: the log is build/full/%s.log\n' "$1" "$1"
}

expect 'an unknown part' 2 "full.sh: no part is called 'nonsense'; there are: good bad dead rare ping pong slow" good nonsense
expect_runs good 0
expect 'all parts' 1 "$(runs good; runs bad; runs dead)
$table
3 parts, SECONDS, commit $first: FAILED"
sed -E 's/\| [0-9]+ s \|/| SECONDS |/; s/20[0-9]+-[0-9]+-[0-9]+/DATE/' docs/reliability.md | tail -n +6 >page
cat >expected <<END
| part | what it does | took | commit | date |
|---|---|---|---|---|
| \`good\` | what is right | SECONDS | $first | DATE |
| \`bad\` | what is wrong | SECONDS | $first | DATE |
| \`dead\` | what ends early | SECONDS | $first | DATE |
| \`rare\` | what takes a day | not run |  |  |
| \`ping\` | what waits for another | not run |  |  |
| \`pong\` | what waits for another | not run |  |  |
| \`slow\` | what lasts | not run |  |  |

| part | measured | figure | limit |  |
|---|---|---|---|---|
| \`good\` | apples | 3 of 3 | all | ok |
| \`bad\` | pears | 7 | 8 | **failed** |
| \`bad\` | a\\|b | 1 |  | ok |
| \`dead\` | end of the part | exit code 3, there are no figures | 0 | **failed** |

## good

- An apple a day.
END
diff -u expected page || { echo 'the page is another one'; failed=1; }
rm expected page

commit_all 'the page' >/dev/null
rm -r build
expect 'resumed in another clone: only what has no result' 1 "$(runs dead)
$table
3 parts, SECONDS, commit $first: FAILED"
expect_runs good 1
expect_runs dead 2
expect_runs rare 0
expect 'a part that is run only when it is named' 1 "$(runs rare)
part  what             figure                             limit  result
rare  end of the part  exit code 4, there are no figures  0      FAILED
1 parts, SECONDS, commit $first: FAILED" rare
expect 'the commit that results belong to' 0 "$first" --commit
expect 'a part alone' 0 "part  what    figure  limit  result
good  apples  3 of 3  all    ok
1 parts, SECONDS, commit $first: ok" good
expect 'once more' 0 "$(runs good)
part  what    figure  limit  result
good  apples  3 of 3  all    ok
1 parts, SECONDS, commit $first: ok" --again good
expect_runs good 2
sed -i 's/bad.py 7/bad.py 9/' tests/full/parts.txt
second=$(commit_all second)
expect 'results of an older commit' 1 "part  what             figure                             limit  result
good  apples           3 of 3                             all    ok (at $first)
bad   pears            7                                  8      FAILED (at $first)
bad   a|b              1                                         ok (at $first)
dead  end of the part  exit code 3, there are no figures  0      FAILED (at $first)
3 parts, SECONDS, commit $second: FAILED" --summary
expect 'another commit' 1 "$(runs bad)
part  what   figure  limit  result
bad   pears  9       8      FAILED
bad   a|b    1              ok
1 parts, SECONDS, commit $second: FAILED" bad
echo '# changed' >>tests/full/good.py
expect 'a tree with changes' 0 "$(runs good)
part  what    figure  limit  result
good  apples  3 of 3  all    ok
1 parts, SECONDS, commit $second+CHANGES: ok" good
tests/full.sh ping pong >/dev/null || true
expect 'lanes ran side by side' 0 "part  what    figure  limit  result
ping  apples  3 of 3  all    ok
pong  apples  3 of 3  all    ok
2 parts, SECONDS, commit $second+CHANGES: ok" --summary ping pong

tests/full.sh slow >/dev/null &
run=$!
for _ in $(seq 200); do
    [ ! -s build/slow.pid ] || break
    sleep 0.05
done
kill "$run"
status=0
wait "$run" || status=$?
[ $status = 130 ] || { echo "an interrupted run ended with $status"; failed=1; }
for _ in $(seq 200); do
    kill -0 "$(cat build/slow.pid)" 2>/dev/null || break
    sleep 0.05
done
if kill -0 "$(cat build/slow.pid)" 2>/dev/null; then
    echo 'a part went on after the run was interrupted'
    failed=1
fi
exit $failed
