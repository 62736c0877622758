#!/bin/bash
# Starts each peer on loopback, measures, stops it by pid. One machine-readable
# line per figure:  RESULT|peer|metric|W|median|min|max|unit|runs
# usage: ./run.sh [ds floor etcd etcd-tmpfs zookeeper redis redis-aof nats nats-advisory dbus-daemon dbus-broker ...]
# env:   PRIO=n (say -19) autogroup priority for server and clients, where others use the machine,
#        OUT=dir for raw lines and logs, DATA=dir on disk, SHM=dir on tmpfs,
#        FOREIGN=percent of the machine others may take during a counted run (15),
#        BENCH_LOCK=file (exclusive while anything is timed), RUNS, SECS,
#        PARTS="seq pipe fan grow million death", WS="1 100 1000"
set -u
cd "$(dirname "$0")"
H=$PWD
BIN=${BIN:-$H/../../build/bench/bin}   # programs built by CMake; those of the Makefile are in build/
OUT=${OUT:-$H/../../out/peers}; DATA=${DATA:-/tmp/peers-data}; SHM=${SHM:-/dev/shm/peers-data}
BENCH_LOCK=${BENCH_LOCK:-/tmp/bench.lock}
RUNS=${RUNS:-5}; SECS=${SECS:-2}; WS=${WS:-"1 100 1000"}
PARTS=${PARTS:-"seq pipe fan grow million death"}
mkdir -p "$OUT"
OUT=$(cd "$OUT" && pwd)
RAW=$OUT/raw.txt; LOG=$OUT/log.txt
: >"$RAW"
program() { if [ -x "$BIN/$1" ]; then echo "$BIN/$1"; else echo "$H/build/$1"; fi; }
[ -n "${PRIO:-}" ] && echo "$PRIO" >/proc/self/autogroup
SRV=0; AUX=0; D=
has() { [[ " $PARTS " == *" $1 "* ]]; }

fresh() { D=$1/$2; rm -rf "${D:?}"; mkdir -p "$D"; }
stop() {
  for p in $AUX $SRV; do
    [ "$p" = 0 ] && continue
    kill "$p" 2>/dev/null
    for _ in $(seq 100); do kill -0 "$p" 2>/dev/null || break; sleep 0.1; done
    kill -9 "$p" 2>/dev/null
    wait "$p" 2>/dev/null
  done
  SRV=0; AUX=0
  [ -n "$D" ] && rm -rf "$D"; D=
}
trap 'stop; exit 1' INT TERM
up_tcp() { for _ in $(seq 300); do (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null && return 0; sleep 0.1; done; echo "server on $1 not up" >&2; return 1; }
# one timed step, alone on the machine
m() { echo "## $*" >>"$LOG"; flock "$BENCH_LOCK" -c "timeout ${LIMIT:-570} $*" >>"$RAW" 2>>"$LOG" || echo "FAILED ($?): $*" | tee -a "$LOG"; }

start_etcd() {  # label datadir-root
  fresh "$2" "$1"
  etcd --name b --data-dir "$D/d" --listen-client-urls http://127.0.0.1:23790 --advertise-client-urls http://127.0.0.1:23790 \
    --listen-peer-urls http://127.0.0.1:23800 --initial-advertise-peer-urls http://127.0.0.1:23800 \
    --initial-cluster b=http://127.0.0.1:23800 ${ETCD_EXTRA:-} >>"$OUT/server-$1.log" 2>&1 & SRV=$!
  up_tcp 23790; sleep 1.5   # leader election
}
start_zk() {
  fresh "$DATA" "$1"
  printf '%s\n' "tickTime=${ZK_TICK:-2000}" "dataDir=$D/d" clientPort=21810 clientPortAddress=127.0.0.1 \
    maxClientCnxns=0 admin.enableServer=false 4lw.commands.whitelist=mntr,srvr >"$D/zoo.cfg"
  mkdir -p "$D/d" "$D/log"
  java ${ZK_JAVA:-} -Dzookeeper.log.dir="$D/log" -Dzookeeper.root.logger=INFO,ROLLINGFILE -Dzookeeper.jmx.log4j.disable=true \
    -cp /etc/zookeeper/conf_example:/usr/share/java/zookeeper.jar \
    org.apache.zookeeper.server.quorum.QuorumPeerMain "$D/zoo.cfg" >>"$OUT/server-$1.log" 2>&1 & SRV=$!
  up_tcp 21810
}
start_ds() {
  fresh "$DATA" "$1"
  "$(program dsd)" --runtime-dir "$D" --socket "$D/bus" >"$D/ready" 2>>"$OUT/server-$1.log" & SRV=$!
  for _ in $(seq 100); do grep -q ready "$D/ready" && return 0; sleep 0.1; done
  echo "dsd is not ready" >&2; return 1
}
start_redis() {
  fresh "$DATA" "$1"
  redis-server --port 63790 --bind 127.0.0.1 --dir "$D" ${REDIS_EXTRA:-} >>"$OUT/server-$1.log" 2>&1 & SRV=$!
  up_tcp 63790
}
start_nats() {
  fresh "$DATA" "$1"
  cat >"$D/n.conf" <<C
listen: 127.0.0.1:42220
server_name: bench
jetstream { store_dir: "$D/js" }
${NATS_ACCOUNTS:-}
C
  nats-server -c "$D/n.conf" >>"$OUT/server-$1.log" 2>&1 & SRV=$!
  up_tcp 42220; sleep 0.5
}
start_dbus() {
  fresh "$DATA" "$1"
  if [ "$1" = dbus-broker ]; then
    "$(program broker_ctl)" "$D/bus" "$D/pid" >>"$OUT/server-$1.log" 2>&1 & AUX=$!
    for _ in $(seq 100); do [ -s "$D/pid" ] && break; sleep 0.1; done
    SRV=$(cat "$D/pid")
  else
    cat >"$D/bus.conf" <<C
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-BUS Bus Configuration 1.0//EN" "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig><type>session</type><listen>unix:path=$D/bus</listen><auth>EXTERNAL</auth>
<policy context="default"><allow send_destination="*" eavesdrop="true"/><allow eavesdrop="true"/><allow own="*"/></policy>
<limit name="max_incoming_bytes">1000000000</limit><limit name="max_outgoing_bytes">1000000000</limit>
<limit name="max_message_size">1000000000</limit><limit name="max_completed_connections">100000</limit>
<limit name="max_incomplete_connections">10000</limit><limit name="max_connections_per_user">100000</limit>
<limit name="max_names_per_connection">4000000</limit><limit name="max_match_rules_per_connection">50000</limit>
<limit name="max_replies_per_connection">50000</limit></busconfig>
C
    dbus-daemon --config-file="$D/bus.conf" --nofork --nopidfile >>"$OUT/server-$1.log" 2>&1 & SRV=$!
    for _ in $(seq 100); do [ -S "$D/bus" ] && break; sleep 0.1; done
  fi
}

start_avahi() {  # own bus, own network namespace, own /run: no multicast leaves it
  fresh "$DATA" "$1"
  cat >"$D/bus.conf" <<C
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-BUS Bus Configuration 1.0//EN" "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig><type>system</type><listen>unix:path=$D/bus</listen><auth>EXTERNAL</auth>
<policy context="default"><allow user="*"/><allow send_destination="*" eavesdrop="true"/><allow eavesdrop="true"/><allow own="*"/></policy></busconfig>
C
  printf '%s\n' '[server]' use-ipv4=yes use-ipv6=no '[publish]' publish-hinfo=no >"$D/avahi.conf"
  dbus-daemon --config-file="$D/bus.conf" --nofork --nopidfile >>"$OUT/server-$1.log" 2>&1 & AUX=$!
  sleep 0.5
  DBUS_SYSTEM_BUS_ADDRESS=unix:path=$D/bus unshare -n -m sh -c "mount -t tmpfs none /run; mkdir /run/avahi-daemon
    ip link set lo up; ip link add v0 type veth peer name v1; ip addr add 10.9.9.1/24 dev v0; ip link set v0 up; ip link set v1 up
    exec avahi-daemon --no-drop-root --no-chroot --no-rlimits -f $D/avahi.conf" >>"$OUT/server-$1.log" 2>&1 & SRV=$!
  sleep 3
}

# what every peer goes through: label, binary, start command..., address in $A
measure() {
  local L=$1 B; B=$(program "$2"); shift 2
  local C="--label $L --runs $RUNS --secs $SECS --warm ${WARM:-1} --foreign ${FOREIGN:-15} ${MORE:-}" S="1000,10000,100000"
  if has seq || has pipe; then
    "$@"; A=${A_FIXED:-$D/bus}
    if has seq; then
      m "$B seq $C --addr $A --pid $SRV"
      [[ $L == dbus* ]] && m "$B alt $C --addr $A --pid $SRV"
    fi
    if has pipe; then m "$B pipe $C --addr $A --out 64 --pid $SRV"; fi
    stop
  fi
  if has fan; then
    for w in $WS; do
      "$@"; A=${A_FIXED:-$D/bus}
      local P=2; [ "$w" = 1 ] && P=1; [ "$w" -ge 1000 ] && P=4
      m "$B fanout $C --addr $A --w $w --procs $P --slots 64 --pid $SRV"
      stop
    done
  fi
  if has grow; then
    for i in $(seq "$RUNS"); do
      "$@"; A=${A_FIXED:-$D/bus}
      m "$B grow --label $L --runs 1 --foreign ${FOREIGN:-15} --addr $A --out 64 --pid $SRV --sizes $S"
      stop
    done
  fi
  if has million; then
    "$@"; A=${A_FIXED:-$D/bus}
    m "$B grow --label $L --runs $RUNS --foreign ${FOREIGN:-15} --addr $A --out 64 --pid $SRV --sizes 1000000"
    stop
  fi
  if has death; then
    for t in ${TTLS:-1000}; do
      "$@"; A=${A_FIXED:-$D/bus}
      m "$B death --label $L --runs $RUNS --addr $A --ttl $t"
      stop
    done
  fi
}

one() {
  local L=$1
  unset ZK_JAVA A_FIXED TTLS ETCD_EXTRA ZK_TICK REDIS_EXTRA NATS_ACCOUNTS WARM MORE
  case $L in
    etcd)        A_FIXED=127.0.0.1:23790 TTLS=1000; measure $L bench_etcd start_etcd $L "$DATA" ;;
    etcd-tmpfs)  A_FIXED=127.0.0.1:23790 TTLS=1000; measure $L bench_etcd start_etcd $L "$SHM" ;;
    etcd-1lease) # every record on one lease
                 MORE="--leases 1" A_FIXED=127.0.0.1:23790 TTLS=1000; measure $L bench_etcd start_etcd $L "$DATA" ;;
    etcd-fast)   # shortest lease the server grants with a 50 ms election timeout
                 ETCD_EXTRA="--heartbeat-interval 10 --election-timeout 50" A_FIXED=127.0.0.1:23790 TTLS=1000
                 measure $L bench_etcd start_etcd $L "$DATA" ;;
    zookeeper)   A_FIXED=127.0.0.1:21810 TTLS=4000 WARM=5;  # the JVM needs a while
                 measure $L bench_zk start_zk $L ;;
    zookeeper-tick500) ZK_TICK=500 A_FIXED=127.0.0.1:21810 TTLS=1000; measure $L bench_zk start_zk $L ;;
    zookeeper-heap192m) ZK_JAVA=-Xmx192m A_FIXED=127.0.0.1:21810 TTLS=4000 WARM=5; measure $L bench_zk start_zk $L ;;
    ds)          measure $L bench_ds start_ds $L ;;
    redis)       A_FIXED=127.0.0.1:63790; measure $L bench_redis start_redis $L ;;
    redis-aof)   REDIS_EXTRA="--appendonly yes" A_FIXED=127.0.0.1:63790; measure $L bench_redis start_redis $L ;;
    redis-aof-always) REDIS_EXTRA="--appendonly yes --appendfsync always" A_FIXED=127.0.0.1:63790; measure $L bench_redis start_redis $L ;;
    nats)        A_FIXED=127.0.0.1:42220; measure $L bench_nats start_nats $L ;;
    nats-advisory) # a named account, so that the server tells of client connections that end
                 NATS_ACCOUNTS='accounts { $SYS { users = [ { user: sys, password: sys } ] }, APP { jetstream: enabled, users = [ { user: app, password: app } ] } }
no_auth_user: app'
                 A_FIXED=127.0.0.1:42220; measure $L bench_nats start_nats $L ;;
    dbus-daemon|dbus-broker) measure $L bench_dbus start_dbus $L ;;
    avahi)       # about one publish a second: few samples, no large sizes
                 start_avahi $L; A=$D/bus; local C="--label $L --runs $RUNS --addr $A --pid $SRV" B; B=$(program bench_avahi)
                 has seq && m "$B seq $C --secs 4 --warm 1"
                 has pipe && m "$B pipe $C --secs 3 --warm 1 --out 64"
                 has fan && m "$B fanout $C --secs 3 --warm 0.2 --slots 4 --w 1"
                 has death && m "$B death $C"
                 stop; start_avahi $L; A=$D/bus
                 has grow && m "$B grow --label $L --runs $RUNS --addr $A --out 64 --pid $SRV --sizes 500 --m 20"
                 stop ;;
    floor)       mkdir -p "$DATA"; m "$(program bench_floor) $DATA" ;;  # the machine itself
    *) echo "unknown peer $L" >&2 ;;
  esac
}
[ $# = 0 ] && set -- ds floor etcd zookeeper redis nats dbus-daemon dbus-broker
for p in "$@"; do echo "== $p $(date +%T)" | tee -a "$LOG"; one "$p"; done
python3 "$H/summarize.py" "$RAW" | tee "$OUT/results.txt"
