#!/usr/bin/env bash
# Shows one directory across three nodes: an etcd, and three daemons of two racks, each a process of
# its own on this machine.
#
#   tools/cluster.sh BIN_DIRECTORY
#
# Everything that is shown is also checked. Ends with 0 only if every check holds. Nothing here
# waits for a fixed time: each step reads the line that says it has happened, with a deadline.
set -u

readonly bin=${1:?usage: cluster.sh BIN_DIRECTORY}
readonly step_seconds=15 # the most that one awaited line may take
readonly ttl_ms=3000
etcd=$(command -v etcd) || { echo "cluster: there is no etcd; tools/setup.sh installs it" >&2; exit 2; }
for program in dsd dsctl; do
    [[ -x $bin/$program ]] || { echo "cluster: no $program in $bin; build it first" >&2; exit 2; }
done
folder=$(mktemp -d) || exit 2
readonly folder
declare -A pids=() # of the processes that run, by name
failures=0

clean_up() {
    for pid in "${pids[@]}"; do kill -9 "$pid" 2>/dev/null; done
    wait 2>/dev/null
    rm -rf "$folder"
}
trap clean_up EXIT
trap 'exit 130' INT TERM

heading() { printf '\n%s\n' "$1"; }
fail() {
    printf '  FAILED  %s\n' "$1"
    failures=$((failures + 1))
}

# await FILE PATTERN DESCRIPTION: until a line of the growing file matches; says whether it did.
await() {
    if timeout "$step_seconds" tail -n +1 -F "$1" 2>/dev/null | grep -m 1 -qE -- "$2"; then
        printf '  ok      %s\n' "$3"
    else
        fail "$3 (no line with \"$2\" in ${1##*/})"
        sed 's/^/          /' "$1" | tail -5
        return 1
    fi
}
# never FILE PATTERN DESCRIPTION: no line of the file matches.
never() {
    if grep -qE -- "$2" "$1"; then
        fail "$3"
        grep -E -- "$2" "$1" | head -3 | sed 's/^/          /'
    else
        printf '  ok      %s\n' "$3"
    fi
}

# shows FILE PATTERN DESCRIPTION: the file, which is whole, has a line that matches.
shows() {
    if grep -qE -- "$2" "$1"; then
        printf '  ok      %s\n' "$3"
    else
        fail "$3"
        sed 's/^/          /' "$1"
    fi
}

# start NAME PROGRAM...: in the background, its output in a file of that name.
start() {
    local name=$1
    shift
    stdbuf -oL "$@" >"$folder/$name.log" 2>&1 &
    pids[$name]=$!
}
stop() {
    kill "-$2" "${pids[$1]}" 2>/dev/null
    wait "${pids[$1]}" 2>/dev/null
    unset "pids[$1]"
}
dsctl() {
    local node=$1
    shift
    "$bin/dsctl" --socket "$folder/$node/ds.sock" "$@"
}

free_port() {
    local port
    while port=$((20000 + RANDOM % 10000)); do
        (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null || break
    done
    echo "$port"
}
client_port=$(free_port)
peer_port=$(free_port)
readonly client_port peer_port

start_etcd() {
    start etcd "$etcd" --data-dir "$folder/etcd" --name one --logger zap \
        --listen-client-urls "http://127.0.0.1:$client_port" \
        --advertise-client-urls "http://127.0.0.1:$client_port" \
        --listen-peer-urls "http://127.0.0.1:$peer_port" \
        --initial-advertise-peer-urls "http://127.0.0.1:$peer_port" \
        --initial-cluster "one=http://127.0.0.1:$peer_port"
    await "$folder/etcd.log" 'serving client traffic' "etcd serves" || exit 1
}

# start_node NAME ADDRESS RACK
start_node() {
    mkdir -p "$folder/$1"
    cat >"$folder/$1.toml" <<TOML
[daemon]
runtime_dir = "$folder/$1"
node_address = "$2"
[relay]
endpoints = "http://127.0.0.1:$client_port"
rack = "$3"
ttl_ms = $ttl_ms
TOML
    start "$1" "$bin/dsd" --config "$folder/$1.toml"
    await "$folder/$1.log" '^dsd: ready on ' "node $1 ($2, rack $3) is ready" || exit 1
}

# watch NODE NAME: a watcher whose lines are in NODE-NAME.log.
watch() {
    start "$1-$2" "$bin/dsctl" --socket "$folder/$1/ds.sock" watch "$2"
    await "$folder/$1-$2.log" '^=' "node $1 watches $2"
}
publish() {
    start "$1-publishes-$2" "$bin/dsctl" --socket "$folder/$1/ds.sock" publish "$2" "$3" --scope "$4"
    await "$folder/$1-publishes-$2.log" '^published' "node $1 publishes $2 at $3, scope $4"
}

heading "Three nodes: a and b in rack east, c in rack west"
start_etcd
start_node a 02:00:00:00:00:0a east
start_node b 02:00:00:00:00:0b east
start_node c 02:00:00:00:00:0c west

heading "Each scope reaches whom it should"
for node in a b c; do
    for name in everywhere in-rack here; do watch "$node" "$name"; done
done
publish a everywhere 10.0.0.1:7000 system
publish a in-rack 10.0.0.1:7001 rack
publish a here 10.0.0.1:7002 local
for node in a b c; do
    await "$folder/$node-everywhere.log" '^\+ .*10\.0\.0\.1:7000' "node $node sees the system service"
done
await "$folder/b-in-rack.log" '^\+ .*10\.0\.0\.1:7001' "node b sees the service of its rack"
await "$folder/a-here.log" '^\+ .*10\.0\.0\.1:7002' "node a sees its local service"
# What is published last comes last: then nothing of the earlier is still under way.
publish a marker 10.0.0.1:7009 system
watch c marker
await "$folder/c-marker.log" '10\.0\.0\.1:7009' "node c sees what came last"
never "$folder/c-in-rack.log" '^\+' "node c did not see the service of the other rack"
never "$folder/b-here.log" '^\+' "node b did not see the local service"
never "$folder/c-here.log" '^\+' "node c did not see the local service"
stop a-publishes-marker TERM
await "$folder/c-marker.log" '^-' "node c is told when its publisher leaves"

heading "etcd is killed and comes back: nobody loses anything"
stop etcd 9
start_etcd
publish b after-outage 10.0.0.2:7100 system
watch c after-outage
await "$folder/c-after-outage.log" '10\.0\.0\.2:7100' "node c learns what node b published meanwhile"
for node in b c; do
    never "$folder/$node-everywhere.log" '^-' "node $node never lost the system service"
done

heading "Node a dies: its services vanish everywhere"
stop a 9
for node in b c; do
    await "$folder/$node-everywhere.log" '^- .*10\.0\.0\.1:7000' "node $node is told that the service is gone"
done
dsctl b nodes >"$folder/nodes.log"
shows "$folder/nodes.log" '^02:00:00:00:00:0a +no +down' "node b knows that node a is down"
shows "$folder/nodes.log" '^02:00:00:00:00:0c +no +up +west' "and node c up, in rack west"
await "$folder/b-in-rack.log" '^- .*10\.0\.0\.1:7001' "node b is told so of the rack's service"

heading "Node a comes back, and its publishers with it"
start_node a 02:00:00:00:00:0a east
publish a everywhere 10.0.0.1:7000 system
publish a in-rack 10.0.0.1:7001 rack
publish a here 10.0.0.1:7002 local
publish a back-again 10.0.0.1:7003 system
watch c back-again
await "$folder/c-back-again.log" '10\.0\.0\.1:7003' "node c sees what node a publishes now"
dsctl c status >"$folder/status.log"
shows "$folder/status.log" '^  state +connected$' "node c says that its relay is connected"
shows "$folder/status.log" '^  nodes +3$' "to a store with three nodes"
shows "$folder/status.log" '^  latency +last .*p99' "whose latency it has measured"
shows "$folder/status.log" '^  outages +0$' "and that it never lost it for long"
for view in "list -o wide" "nodes" "status"; do
    printf '\ndsctl %s\n' "$view"
    # shellcheck disable=SC2086
    dsctl c $view
done

heading "$([[ $failures -eq 0 ]] && echo 'All checks hold.' || echo "$failures checks failed.")"
[[ $failures -eq 0 ]]
