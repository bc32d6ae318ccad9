#!/usr/bin/env bash
# The fault rig of the ZooKeeper engine (docs/faultrig.md).
#
#   scripts/faultrig.sh short [SCENARIO...]   a few minutes, for CI (ctest -L faultrig)
#   scripts/faultrig.sh long [SCENARIO...]    longer faults and soaks, run by hand
#
# SCENARIO is part of a scenario's name (follower, leader, partition,
# client-cut, soak-zk, soak-sqlite); without one, all of them run.
#
# Builds a three-server ensemble, each server in a network namespace of its
# own, joined by a bridge in another namespace; clients run in namespaces
# of their own, or in a server's namespace when they are "its" clients.
# Runs the workload (rig_worker) through each fault, then judges all the
# logs (rig_check):
#   1 a follower killed (kill -9) and restarted
#   2 the leader killed and restarted
#   3 a follower cut off with its clients past the session timeout, healed
#   4 a client cut off holding an exclusive lock past its session timeout
#     while a client elsewhere waits for that lock and gets it, then healed
#   5 a soak on the ensemble: 4 writers, 4 readers, writers killed at random
#   6 the same soak on an SQLite file, then PRAGMA integrity_check
#
# Everything it makes (namespaces, links, processes, the temporary
# directory) goes at exit, on failure too. Exit 0 when the checker found
# nothing, 1 on a violation, 2 on a rig problem, 77 when this machine
# cannot run it (not root, no ip netns, no ZooKeeper server): ctest then
# reports the test as skipped.
#
# Binaries: FAULTRIG_WORKER, FAULTRIG_CHECK, FAULTRIG_HVSCTL (default: the
# build-dev tree). FAULTRIG_KEEP=DIR keeps the logs in DIR. The timeouts
# HVS_ZK_TIMEOUT_MS, HVS_ZK_SESSION_MS and LKS_TIMEOUT_MS may be preset.
set -uo pipefail

form=${1:-short}
shift || true
only=("$@")
top=$(cd "$(dirname "$0")/.." && pwd)
worker=${FAULTRIG_WORKER:-$top/build-dev/tests/faultrig/rig_worker}
checker=${FAULTRIG_CHECK:-$top/build-dev/tests/faultrig/rig_check}
hvsctl=${FAULTRIG_HVSCTL:-$top/build-dev/tools/hvsctl/hvsctl}
sample=$top/examples/sample-cluster.json
jars=/usr/share/java

case $form in
# The timeouts keep the relations docs/zookeeper.md gives: a call outlasts
# two thirds of a session plus an election, a lock wait a session plus an
# election plus a call. The long form runs with the library's defaults.
short)
  : "${HVS_ZK_SESSION_MS:=3000}" "${HVS_ZK_TIMEOUT_MS:=4000}" "${LKS_TIMEOUT_MS:=10000}"
  run_s=12 soak_s=15 kill_every=3 rounds=1 leader_rounds=2 ;;
long)
  : "${HVS_ZK_SESSION_MS:=6000}" "${HVS_ZK_TIMEOUT_MS:=8000}" "${LKS_TIMEOUT_MS:=20000}"
  run_s=40 soak_s=60 kill_every=4 rounds=3 leader_rounds=3 ;;
*) echo "usage: faultrig.sh short|long" >&2; exit 2 ;;
esac
export HVS_ZK_SESSION_MS HVS_ZK_TIMEOUT_MS LKS_TIMEOUT_MS

scenarios="1-follower-kill 2-leader-kill 3-partition 4-client-cut 5-soak-zk 6-soak-sqlite"
for pat in "${only[@]}"; do
  [[ $scenarios == *"$pat"* ]] || { echo "faultrig: no scenario matches $pat ($scenarios)" >&2; exit 2; }
done

skip() { echo "faultrig: skipped: $*"; exit 77; }
[[ $(id -u) -eq 0 ]] || skip "needs root for network namespaces"
command -v ip >/dev/null || skip "no ip command (iproute2)"
tag=prsr-rig-$$
ip netns add "$tag-probe" 2>/dev/null || skip "ip netns does not work here"
ip netns del "$tag-probe"
[[ -f $jars/zookeeper.jar ]] && command -v java >/dev/null ||
  skip "no ZooKeeper server (Debian package zookeeper, scripts/setup.sh)"
command -v sqlite3 >/dev/null || skip "no sqlite3 command (scripts/setup.sh)"
for b in "$worker" "$checker" "$hvsctl"; do
  [[ -x $b ]] || { echo "faultrig: $b is missing: build first (cmake --build --preset dev)" >&2; exit 2; }
done

# Namespaces left by a rig that was killed outright (its clean-up never
# ran): whatever runs in them was started by that rig.
for n in $(ip netns list | awk '{print $1}' | grep -E '^prsr-rig-[0-9]+-'); do
  p=${n#prsr-rig-}
  p=${p%%-*}
  kill -0 "$p" 2>/dev/null && continue
  echo "faultrig: removing $n, left by an earlier run"
  for q in $(ip netns pids "$n" 2>/dev/null); do kill -9 "$q" 2>/dev/null; done
  ip netns del "$n" 2>/dev/null
done

work=$(mktemp -d "${TMPDIR:-/tmp}/prsr-rig.XXXXXX")
net=10.213.1
hosts="$net.11:2181,$net.12:2181,$net.13:2181"
PIDS=()        # every process started, for the clean-up
NSS=()         # every namespace made
declare -A ZKPID
t_start=$SECONDS

say() { printf '[%4ds] %s\n' $((SECONDS - t_start)) "$*"; }
die() { say "rig problem: $*"; exit 2; }

alive() {
  local st
  st=$(awk '{print $3}' "/proc/$1/stat" 2>/dev/null) || return 1
  [[ -n $st && $st != Z ]]
}

cleanup() {
  local rc=$?
  trap - EXIT INT TERM
  local pid n
  for pid in "${PIDS[@]}"; do alive "$pid" && kill -TERM "$pid" 2>/dev/null; done
  for _ in $(seq 50); do
    n=0
    for pid in "${PIDS[@]}"; do alive "$pid" && n=$((n + 1)); done
    ((n == 0)) && break
    sleep 0.1
  done
  for pid in "${PIDS[@]}"; do alive "$pid" && kill -9 "$pid" 2>/dev/null; done
  # Whatever still runs in the rig's namespaces was started by the rig.
  for n in "${NSS[@]}"; do
    for pid in $(ip netns pids "$n" 2>/dev/null); do kill -9 "$pid" 2>/dev/null; done
  done
  wait 2>/dev/null
  for n in "${NSS[@]}"; do ip netns del "$n" 2>/dev/null; done
  if [[ -n ${FAULTRIG_KEEP:-} ]]; then
    mkdir -p "$FAULTRIG_KEEP" && cp -r "$work"/. "$FAULTRIG_KEEP"/ && say "logs kept in $FAULTRIG_KEEP"
  fi
  rm -rf "$work"
  exit "$rc"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

# ---- the network ----------------------------------------------------------

ns() { echo "$tag-$1"; }
addr_of() {
  case $1 in s*) echo "$net.1${1#s}" ;; c*) echo "$net.2${1#c}" ;; esac
}
in_ns() { local n=$1; shift; ip netns exec "$(ns "$n")" "$@"; }

net_up() {
  local br node
  br=$(ns br)
  ip netns add "$br" && NSS+=("$br") || die "cannot make namespace $br"
  ip -n "$br" link set lo up
  ip -n "$br" link add br0 type bridge
  ip -n "$br" addr add "$net.1/24" dev br0 # the rig's own vantage point
  ip -n "$br" link set br0 up
  for node in s1 s2 s3 c1 c2 c3 c4; do
    ip netns add "$(ns $node)" && NSS+=("$(ns $node)") || die "cannot make namespace $(ns $node)"
    ip -n "$br" link add "v-$node" type veth peer name eth0 netns "$(ns $node)" ||
      die "cannot link $node"
    ip -n "$br" link set "v-$node" master br0 up
    ip -n "$(ns $node)" addr add "$(addr_of $node)/24" dev eth0
    ip -n "$(ns $node)" link set eth0 up
    ip -n "$(ns $node)" link set lo up
  done
}
cut() { ip -n "$(ns br)" link set "v-$1" down; }
heal() { ip -n "$(ns br)" link set "v-$1" up; }

# ---- the ensemble ---------------------------------------------------------

zk_start() {
  local n=$1 d=$work/zk$1
  if [[ ! -f $d/zoo.cfg ]]; then
    mkdir -p "$d/data"
    echo "$n" >"$d/data/myid"
    cat >"$d/zoo.cfg" <<EOF
tickTime=500
initLimit=10
syncLimit=4
minSessionTimeout=1000
maxSessionTimeout=20000
dataDir=$d/data
clientPort=2181
clientPortAddress=$(addr_of s$n)
server.1=$net.11:2888:3888
server.2=$net.12:2888:3888
server.3=$net.13:2888:3888
maxClientCnxns=0
admin.enableServer=false
4lw.commands.whitelist=ruok,srvr,stat
autopurge.purgeInterval=0
EOF
  fi
  local cp="$jars/zookeeper.jar:$jars/zookeeper-jute.jar:$jars/slf4j-api.jar:$jars/slf4j-simple.jar"
  ip netns exec "$(ns "s$n")" setsid java -Xmx128m -XX:+UseSerialGC -XX:TieredStopAtLevel=1 \
    -Dzookeeper.admin.enableServer=false -Dorg.slf4j.simpleLogger.defaultLogLevel=warn \
    -cp "$cp" org.apache.zookeeper.server.quorum.QuorumPeerMain "$d/zoo.cfg" \
    >>"$d/zk.log" 2>&1 </dev/null &
  ZKPID[$n]=$!
  PIDS+=($!)
}

zk_kill() {
  local n=$1
  kill -9 "${ZKPID[$n]}" 2>/dev/null
  wait "${ZKPID[$n]}" 2>/dev/null
}

# The server's mode (leader, follower, ...) as srvr tells it, from the
# bridge's namespace; empty when it does not answer.
zk_mode() {
  in_ns br timeout 3 bash -c \
    "exec 3<>/dev/tcp/$net.1$1/2181 && printf srvr >&3 && cat <&3" 2>/dev/null |
    sed -n 's/^Mode: //p'
}

# Waits until every server serves, one of them as leader.
zk_ready() {
  local deadline=$((SECONDS + ${1:-60})) modes
  while ((SECONDS < deadline)); do
    modes="$(zk_mode 1) $(zk_mode 2) $(zk_mode 3)"
    if [[ $modes =~ ^(leader|follower)\ (leader|follower)\ (leader|follower)$ && $modes == *leader* ]]; then
      return 0
    fi
    sleep 0.5
  done
  say "ensemble not ready: $modes"
  return 1
}

zk_find() { # zk_find leader|follower: the first server in that mode
  local n
  for n in 1 2 3; do [[ $(zk_mode $n) == "$1" ]] && { echo "$n"; return 0; }; done
  return 1
}

# ---- scenarios ----------------------------------------------------------

dir= root= WPIDS=() last_fault=0
declare -A KILLED # processes the rig killed on purpose

now_ms() { echo $(($(date +%s%N) / 1000000)); }
mark() { "$worker" mark --log "$dir/marks.log" "$@"; }
fault_at() { last_fault=$(now_ms); }

begin() { # begin NAME zk|sqlite
  dir=$work/logs/$1
  mkdir -p "$dir"
  WPIDS=()
  if [[ $2 == zk ]]; then
    root=/rig/$1
    export HVS_REGISTRY="zk://$hosts$root"
  else
    root=
    export HVS_REGISTRY="sqlite:$work/$1.db"
  fi
  say "$1: registry $HVS_REGISTRY"
  in_ns br "$hvsctl" import "$sample" >"$dir/setup.out" 2>&1 || die "import failed: $(cat "$dir/setup.out")"
  local db
  for db in sales hr; do
    in_ns br "$hvsctl" create "DATABASE.DATABASES.$db.RIG_MARKER" none >>"$dir/setup.out" 2>&1 ||
      die "marker of $db: $(cat "$dir/setup.out")"
  done
  in_ns br "$worker" prepare --log "$dir/prepare.log" >>"$dir/setup.out" 2>&1 ||
    die "the services could not be made whole (see $dir/prepare.log)"
  mark what=start
}

# start_worker NODE NAME ARGS...: a workload process in NODE's namespace.
start_worker() {
  local node=$1 name=$2
  shift 2
  ip netns exec "$(ns "$node")" "$worker" run --log "$dir/$name.log" --name "$name" --idle-s 120 "$@" \
    >>"$dir/$name.out" 2>&1 </dev/null &
  PIDS+=($!)
  WPIDS+=($!)
}

# Waits until every live worker of the scenario is idle (or gone).
wait_idle() {
  local deadline=$((SECONDS + $1)) pid busy f
  while ((SECONDS < deadline)); do
    busy=0
    for pid in "${WPIDS[@]}"; do
      alive "$pid" || continue
      f=$(grep -l " pid=$pid " "$dir"/*.log 2>/dev/null | head -1)
      [[ -n $f ]] && grep -q ' idle' "$f" && continue
      busy=1
    done
    ((busy == 0)) && return 0
    sleep 0.5
  done
  say "workers still busy after $1 s"
}

# Sleeps until the session timeout (and 2 s) has passed since the last
# fault, so that a dead client's requests are gone from the queues.
settle() {
  local wait_ms=$((last_fault + HVS_ZK_SESSION_MS + 2000 - $(now_ms)))
  ((wait_ms > 0)) && sleep "$(printf '%d.%03d' $((wait_ms / 1000)) $((wait_ms % 1000)))"
}

dump_queues() {
  in_ns br "$checker" queues --zk "$hosts" --root "$root" --out "$dir/queues.log" ||
    say "lock queues could not be listed"
}

# Ends the scenario's processes: SIGTERM, then SIGKILL for the stuck ones.
# A process that ends with a failure (a sanitizer's report among them) is
# marked for the checker.
finish() {
  local pid st
  for pid in "${WPIDS[@]}"; do alive "$pid" && kill -TERM "$pid"; done
  local deadline=$((SECONDS + LKS_TIMEOUT_MS / 1000 + HVS_ZK_TIMEOUT_MS / 1000 + 5))
  for pid in "${WPIDS[@]}"; do
    [[ -n ${KILLED[$pid]:-} ]] && continue
    while alive "$pid" && ((SECONDS < deadline)); do sleep 0.1; done
    if alive "$pid"; then
      kill -9 "$pid"
      wait "$pid" 2>/dev/null
      mark what=stuck pid="$pid"
      say "worker $pid did not end on SIGTERM: killed"
      continue
    fi
    wait "$pid" 2>/dev/null
    st=$?
    ((st == 0)) || mark what=failed pid="$pid" status="$st"
  done
  mark what=end
}

# A server killed and restarted, rounds times: follower or leader.
scenario_kill() { # scenario_kill NAME follower|leader ROUNDS
  local name=$1 role=$2 rounds=$3 r n
  begin "$name" zk
  local total=$((run_s + rounds * 5))
  start_worker c1 a1 --seconds "$total"
  start_worker c1 a2 --seconds "$total"
  start_worker c2 b1 --seconds "$total"
  start_worker c2 b2 --seconds "$total"
  start_worker c4 d1 --seconds "$total"
  sleep 3
  for r in $(seq "$rounds"); do
    n=$(zk_find "$role") || { say "no $role found"; mark what=problem detail=no-$role; break; }
    zk_kill "$n"
    fault_at
    mark what=fault detail="kill-$role-s$n"
    say "$name: killed the $role s$n (round $r)"
    sleep 3
    zk_start "$n"
    zk_ready 60 || die "the ensemble did not come back"
    mark what=restart detail="s$n"
    say "$name: s$n back"
    sleep 2
  done
  wait_idle $((total + LKS_TIMEOUT_MS / 1000 + 10))
  settle
  dump_queues
  finish
}

# A follower and its clients cut off past the session timeout, then healed.
scenario_partition() {
  local name=$1 n
  begin "$name" zk
  n=$(zk_find follower) || die "no follower"
  local cut_s=$(((HVS_ZK_SESSION_MS + 2000) / 1000))
  local total=$((run_s + rounds * (cut_s + 4)))
  # The server's own clients hold longer, so that the cut finds them holding.
  start_worker "s$n" p1 --seconds "$total" --hold-ms 300
  start_worker "s$n" p2 --seconds "$total" --hold-ms 300
  start_worker c1 a1 --seconds "$total"
  start_worker c2 b1 --seconds "$total"
  start_worker c4 d1 --seconds "$total"
  sleep 3
  local r
  for r in $(seq "$rounds"); do
    cut "s$n"
    fault_at
    mark what=fault detail="cut-s$n"
    say "$name: cut s$n and its clients off for $cut_s s (round $r)"
    sleep "$cut_s"
    heal "s$n"
    fault_at
    mark what=heal detail="s$n"
    zk_ready 60 || die "the ensemble did not come back"
    say "$name: healed"
    sleep 3
  done
  wait_idle $((total + LKS_TIMEOUT_MS / 1000 + 10))
  settle
  dump_queues
  finish
}

# A client cut off while it holds the lock; another one waits for it.
scenario_client_cut() {
  local name=$1
  begin "$name" zk
  local wait_s=$(((LKS_TIMEOUT_MS + HVS_ZK_SESSION_MS) / 1000 + 30))
  ip netns exec "$(ns c3)" "$worker" hold --log "$dir/holder.log" --name holder --db sales \
    --ready "$dir/holder.ready" --go "$dir/holder.go" --wait-s "$wait_s" \
    >>"$dir/holder.out" 2>&1 </dev/null &
  local holder=$!
  PIDS+=($holder)
  WPIDS+=($holder)
  local deadline=$((SECONDS + 30))
  while [[ ! -f $dir/holder.ready ]] && alive "$holder" && ((SECONDS < deadline)); do sleep 0.1; done
  [[ -f $dir/holder.ready ]] || die "the holder did not get the lock (see $dir/holder.log)"
  cut c3
  fault_at
  mark what=fault detail=cut-c3-holding
  say "$name: cut the holder off"
  ip netns exec "$(ns c4)" "$worker" hold --log "$dir/waiter.log" --name waiter --db sales \
    --ready "$dir/waiter.ready" --go "$dir/waiter.go" --wait-s "$wait_s" \
    >>"$dir/waiter.out" 2>&1 </dev/null &
  local waiter=$!
  PIDS+=($waiter)
  WPIDS+=($waiter)
  deadline=$((SECONDS + LKS_TIMEOUT_MS / 1000 + 10))
  while [[ ! -f $dir/waiter.ready ]] && alive "$waiter" && ((SECONDS < deadline)); do sleep 0.1; done
  if [[ -f $dir/waiter.ready ]]; then say "$name: the waiter has the lock"; else say "$name: the waiter did not get the lock"; fi
  heal c3
  mark what=heal detail=c3
  say "$name: healed; the holder writes and releases"
  touch "$dir/holder.go"
  deadline=$((SECONDS + wait_s))
  while alive "$holder" && ((SECONDS < deadline)); do sleep 0.1; done
  touch "$dir/waiter.go"
  while alive "$waiter" && ((SECONDS < deadline)); do sleep 0.1; done
  settle
  dump_queues
  finish
}

# Writers and readers for soak_s seconds, a writer killed every few seconds.
scenario_soak() { # scenario_soak NAME zk|sqlite
  local name=$1 engine=$2 i
  begin "$name" "$engine"
  local wmix="fetch:0,set:3,xhold:2,shold:0" rmix="fetch:3,set:0,xhold:0,shold:1"
  local -a writers=() wnodes=(c1 c2 c1 c2) rnodes=(c2 c4 c2 c4)
  local end=$((SECONDS + soak_s)) next=1
  for i in 0 1 2 3; do
    start_worker "${rnodes[$i]}" "r$i" --seconds "$soak_s" --mix "$rmix"
    start_worker "${wnodes[$i]}" "w$i" --seconds "$soak_s" --mix "$wmix"
    writers+=($!)
  done
  local kills=0 victim k
  while ((SECONDS + kill_every < end)); do
    sleep "$kill_every"
    k=$((RANDOM % 4))
    victim=${writers[$k]}
    alive "$victim" || continue
    kill -9 "$victim"
    wait "$victim" 2>/dev/null
    KILLED[$victim]=1
    fault_at
    mark what=kill pid="$victim"
    kills=$((kills + 1))
    start_worker "${wnodes[$k]}" "w$k-$next" --seconds $((end - SECONDS)) --mix "$wmix"
    writers[$k]=$!
    next=$((next + 1))
  done
  say "$name: $kills writers killed"
  wait_idle $((soak_s + LKS_TIMEOUT_MS / 1000 + 10))
  if [[ $engine == zk ]]; then
    settle
    dump_queues
  fi
  finish
  if [[ $engine == sqlite ]]; then
    local result
    result=$(sqlite3 "$work/$name.db" 'PRAGMA integrity_check' 2>&1 | tr '\n' ' ')
    [[ $result == "ok " ]] && mark what=integrity result=ok ||
      mark what=integrity result=failed detail="$result"
    say "$name: integrity_check: $result"
  fi
}

# ---- the run --------------------------------------------------------------

say "faultrig $form: session ${HVS_ZK_SESSION_MS} ms, call ${HVS_ZK_TIMEOUT_MS} ms, lock ${LKS_TIMEOUT_MS} ms; work in $work"
net_up
for n in 1 2 3; do zk_start "$n"; done
zk_ready 90 || die "the ensemble did not start (logs: $work/zk*/zk.log)"
say "ensemble up: leader s$(zk_find leader)"

declare -A took
run() {
  local t0=$SECONDS want=$(( ${#only[@]} == 0 )) pat
  for pat in "${only[@]}"; do [[ $2 == *"$pat"* ]] && want=1; done
  ((want)) || return 0
  "$@"
  took[$2]=$((SECONDS - t0))
}
run scenario_kill 1-follower-kill follower "$rounds"
run scenario_kill 2-leader-kill leader "$leader_rounds"
run scenario_partition 3-partition
run scenario_client_cut 4-client-cut
run scenario_soak 5-soak-zk zk
run scenario_soak 6-soak-sqlite sqlite

say "scenarios done in $((SECONDS - t_start)) s:$(for k in $(printf '%s\n' "${!took[@]}" | sort); do printf ' %s %ss' "$k" "${took[$k]}"; done)"
"$checker" "$work"/logs/*/
rc=$?
say "faultrig $form: checker exit $rc, $((SECONDS - t_start)) s in all"
exit "$rc"
