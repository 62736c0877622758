#!/bin/bash
# Where the time goes, per peer: CPU share by process and by library (perf,
# whole machine) while publishing pipelined and to 100 watchers; and how often
# the server syncs its files (strace) per sequential publish.
# usage: ./profile.sh peer...     needs root, perf, strace
set -u
cd "$(dirname "$0")"
H=$PWD
source <(sed -n '/^set -u/,/^# what every peer/p' run.sh | grep -v -e '^cd ' -e '^H=')
for L in "$@"; do
  A_FIXED=
  case $L in
    etcd) A_FIXED=127.0.0.1:23790; B=etcd; start_etcd $L "$DATA" ;;
    zookeeper) A_FIXED=127.0.0.1:21810; B=zk; start_zk $L ;;
    redis) A_FIXED=127.0.0.1:63790; B=redis; start_redis $L ;;
    nats) A_FIXED=127.0.0.1:42220; B=nats; start_nats $L ;;
    ds) B=ds; start_ds $L ;;
    dbus-*) B=dbus; start_dbus $L ;;
  esac
  X=$(program "bench_$B"); C="--label $L --addr ${A_FIXED:-$D/bus} --runs 1 --secs 1.5 --warm ${WARM:-1}"
  P="perf record -q -e cpu-clock -F 499 -a -o $OUT/perf"
  cat >"$OUT/steps.sh" <<S
$P.pipe -- $X pipe $C 2>/dev/null | grep _ops
$P.fan -- $X fanout $C --w 100 --procs 2 2>/dev/null | grep rate
[ $B = dbus ] || { timeout -s INT 4 strace -f -c -e trace=fsync,fdatasync,write,writev,pwrite64,sendto,sendmsg,read,recvmsg,futex,epoll_wait,epoll_pwait -p $SRV -o $OUT/strace.txt >/dev/null 2>&1 & }
sleep 0.7
[ $B = dbus ] || $X seq --label $L-strace ${C/--runs 1/--runs 1} --warm 0 | grep _ops
wait
for k in pipe fan; do for s in comm dso; do echo "-- $L \$k by \$s"; perf report -i $OUT/perf.\$k --stdio --sort \$s 2>/dev/null | grep -E '^ +[0-9]' | head -6; done; done
[ $B = dbus ] || awk '\$4 ~ /^[0-9]+\$/ {print "  calls", \$4, \$NF}' $OUT/strace.txt
S
  echo "=== $L"
  flock "$BENCH_LOCK" -c "bash $OUT/steps.sh"
  stop
done
