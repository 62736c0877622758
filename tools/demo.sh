#!/usr/bin/env bash
# Shows the directory service at work: one daemon, two watchers, two publishers, each a process of
# its own.
#
#   tools/demo.sh BIN_DIRECTORY
#
# Everything that is shown is also checked. Ends with 0 only if every check holds. Nothing here
# waits for a fixed time: each step reads the line that says it has happened, with a deadline.
set -u

readonly bin=${1:?usage: demo.sh BIN_DIRECTORY}
readonly step_seconds=5 # the most that one awaited line may take
for program in dsd dsctl; do
    [[ -x $bin/$program ]] || { echo "demo: no $program in $bin; build it first" >&2; exit 2; }
done
readonly dsctl=$bin/dsctl
folder=$(mktemp -d) || exit 2
readonly folder
export DS_SOCKET=$folder/ds.sock
processes=()
failures=0

if [[ -t 1 && -z ${NO_COLOR:-} ]]; then
    bold=$'\e[1m' green=$'\e[32m' red=$'\e[31m' plain=$'\e[0m'
else
    bold='' green='' red='' plain=''
fi

clean_up() {
    for process in "${processes[@]}"; do kill "$process" 2>/dev/null; done
    for process in "${processes[@]}"; do wait "$process" 2>/dev/null; done
    rm -rf "$folder"
}
trap clean_up EXIT
trap 'exit 130' INT TERM

readonly started_us=${EPOCHREALTIME//[!0-9]/}
elapsed_ms() { echo $(((${EPOCHREALTIME//[!0-9]/} - started_us) / 1000)); }
heading() { printf '\n%s%s%s\n' "$bold" "$1" "$plain"; }
show() { sed 's/^/    /'; }

# check DESCRIPTION COMMAND...: the command's result, as a line.
check() {
    local description=$1
    shift
    if "$@"; then
        printf '  %sok%s      %s\n' "$green" "$plain" "$description"
    else
        printf '  %sFAILED%s  %s\n' "$red" "$plain" "$description"
        failures=$((failures + 1))
    fi
}

has_line() { grep -qE -- "$1" <<<"$2"; }
has_lines() { [[ $(grep -cE -- "$1" <<<"$2") -eq $3 ]]; }

# await FD PATTERN VARIABLE: appends lines from FD to VARIABLE up to the first that matches.
await() {
    local fd=$1 pattern=$2 line
    local -n log=$3
    local end=$((SECONDS + step_seconds))
    while ((SECONDS < end)) && IFS= read -r -t "$step_seconds" -u "$fd" line; do
        log+=$line$'\n'
        [[ $line =~ $pattern ]] && return 0
    done
    printf '  %sFAILED%s  no line with "%s" came within %d s\n' "$red" "$plain" "$pattern" \
        "$step_seconds"
    failures=$((failures + 1))
    return 1
}

# The daemon, and the line that says that clients may come.
heading "The daemon starts"
daemon_log=''
exec {daemon}< <(exec "$bin/dsd" --runtime-dir "$folder" --socket "$DS_SOCKET" \
    --trace-dir "$folder/trace" 2>"$folder/dsd.err")
processes+=($!)
if ! await "$daemon" '^dsd: ready on ' daemon_log; then
    show <"$folder/dsd.err"
    exit 1
fi
printf '%s' "$daemon_log" | show

# Each watcher is a process whose output is read here, line by line.
watcher_a='' watcher_b=''
exec {a}< <(exec "$dsctl" watch web --no-color 2>&1)
processes+=($!)
await "$a" 'nothing is published' watcher_a

heading "Two processes publish \"web\""
publisher_1='' publisher_2=''
mkfifo "$folder/endpoints"
exec {endpoints}<>"$folder/endpoints"
exec {one}< <(exec "$dsctl" publish web 10.0.0.1:8080 --instance blue --ha active \
    --update-from-stdin <"$folder/endpoints" 2>&1)
processes+=($!)
await "$one" '^published' publisher_1
exec {two}< <(exec "$dsctl" publish web 10.0.0.2:8080 --instance green --ha standby 2>&1)
second=$!
processes+=("$second")
await "$two" '^published' publisher_2
await "$a" '^\+.*green' watcher_a
printf '%s%s' "$publisher_1" "$publisher_2" | show

# Watcher B comes when everything is there already.
exec {b}< <(exec "$dsctl" watch web --no-color 2>&1)
processes+=($!)
await "$b" '^=.*green' watcher_b

heading "\"blue\" moves to another endpoint"
echo 10.0.0.9:9090 >&"$endpoints"
moved=''
await "$one" '^changed' moved
await "$a" '^~.*blue' watcher_a
await "$b" '^~.*blue' watcher_b
printf '%s' "$moved" | show

heading "The publisher of \"green\" is killed (kill -9 $second)"
before_kill=$("$dsctl" list --no-color)
kill -9 "$second"
await "$a" '^-.*green' watcher_a
await "$b" '^-.*green' watcher_b
wait "$second" 2>/dev/null
listing=$("$dsctl" list --no-color)
printf 'before\n%s\nafter\n%s\n' "$before_kill" "$listing" | show

heading "Watcher A, registered before anything was published, was told"
printf '%s' "$watcher_a" | show
heading "Watcher B, registered after the publications, was told"
printf '%s' "$watcher_b" | show

heading "dsctl status"
status=$("$dsctl" status --no-color)
show <<<"$status"
heading "dsctl trace -n 8"
trace=$("$dsctl" trace -n 8 --no-color)
show <<<"$trace"

heading "Checks"
check 'A was first told that nothing is published' has_line '^= .*nothing is published' "$watcher_a"
check 'A saw both instances appear' has_lines '^\+ .*web .*(blue|green)' "$watcher_a" 2
check 'A was told of the move with the old endpoint' \
    has_line '^~ .*blue +10\.0\.0\.9:9090 .*endpoint was 10\.0\.0\.1:8080' "$watcher_a"
check 'A was told that green is gone' has_line '^- .*green +10\.0\.0\.2:8080' "$watcher_a"
check 'B was told at once what was there' has_lines '^= .*web .*(blue|green)' "$watcher_b" 2
check 'B was told of the move and of the end, and of no appearance' \
    has_lines '^[~+-] ' "$watcher_b" 2
check 'the move kept the publication and raised its generation to 2' \
    has_line '^changed web/blue .* generation 2$' "$moved"
check 'both instances were listed before the kill' has_lines '^web ' "$before_kill" 2
check 'the list shows blue alone, where it is now' \
    has_line '^web +blue +LOCAL +10\.0\.0\.9:9090 +ACTIVE' "$listing"
check 'the list no longer shows green' has_lines 'green' "$listing" 0
check 'the status counts one service, two registrations, three publishes' \
    has_lines '^(services +1|registrations +2|publishes +3)$' "$status" 3
check 'the trace tells of the deleted publication' \
    has_line 'DS_DELETED_SERVICE\] .* delete web@LOCAL/gen:1 ' "$trace"

if ((failures > 0)); then
    printf '\n%s%d of the checks failed.%s\n' "$red" "$failures" "$plain"
    exit 1
fi
printf '\n%sEverything held.%s It took %d ms.\n' "$green" "$plain" "$(elapsed_ms)"
