#!/usr/bin/env bash
# A throwaway standalone ZooKeeper server for the tests. Installs nothing:
# scripts/setup.sh puts the Debian package "zookeeper" in place.
#
#   scripts/zk.sh start [DIR]   start a server on 127.0.0.1 (a free port, or
#                               the port it had before in DIR), wait until it
#                               answers, write "127.0.0.1:PORT" to DIR/address
#   scripts/zk.sh stop [DIR]    stop the server started in DIR by its process id
#   scripts/zk.sh address [DIR] print the address
#
# DIR defaults to $ZK_DIR, else ${TMPDIR:-/tmp}/prsr-zk-$UID. It holds the
# data directory, the configuration, the log, the pid and the address; stop
# leaves the port in DIR/port so that a later start reuses it (the tests stop
# and restart a server under its clients' feet).
set -euo pipefail

cmd=${1:-}
dir=${2:-${ZK_DIR:-${TMPDIR:-/tmp}/prsr-zk-$(id -u)}}
jars=/usr/share/java
wait_s=${ZK_START_TIMEOUT:-60}

die() { echo "zk.sh: $*" >&2; exit 1; }

free_port() {
  python3 - <<'EOF'
import socket
s = socket.socket()
s.bind(("127.0.0.1", 0))
print(s.getsockname()[1])
s.close()
EOF
}

# The srvr answer must show a serving mode, as a standalone server accepts
# connections before it loads its data. Each probe is bounded: a command
# that reaches the server while it is still loading is never answered and
# its connection never closed (the server logs a NullPointerException).
answers() {
  local port=$1 reply
  reply=$(timeout 3 bash -c 'exec 2>/dev/null 3<>"/dev/tcp/127.0.0.1/$1" && printf srvr >&3 && cat <&3' _ "$port") || return 1
  [[ $reply == *"Mode: standalone"* || $reply == *"Mode: leader"* || $reply == *"Mode: follower"* ]]
}

running() { [[ -f $dir/pid ]] && kill -0 "$(cat "$dir/pid")" 2>/dev/null; }

start() {
  [[ -f $jars/zookeeper.jar ]] || die "$jars/zookeeper.jar missing: install the package zookeeper (scripts/setup.sh)"
  command -v java >/dev/null || die "no java on PATH (the package zookeeper brings one)"
  if running; then
    echo "zk.sh: already running, pid $(cat "$dir/pid"), $(cat "$dir/address")"
    return 0
  fi
  mkdir -p "$dir/data"
  local port
  if [[ -f $dir/port ]]; then port=$(cat "$dir/port"); else port=$(free_port); fi
  echo "$port" >"$dir/port"
  # tickTime 500 ms lets the tests ask for sessions of one second.
  cat >"$dir/zoo.cfg" <<EOF
tickTime=500
minSessionTimeout=1000
maxSessionTimeout=30000
dataDir=$dir/data
clientPort=$port
clientPortAddress=127.0.0.1
maxClientCnxns=0
admin.enableServer=false
4lw.commands.whitelist=ruok,srvr,stat
autopurge.purgeInterval=0
EOF
  # slf4j-simple is the logging binding: without one the server logs nothing.
  local cp="$jars/zookeeper.jar:$jars/zookeeper-jute.jar:$jars/slf4j-api.jar:$jars/slf4j-simple.jar"
  setsid java -Xmx256m -Dzookeeper.admin.enableServer=false \
    -Dorg.slf4j.simpleLogger.defaultLogLevel=warn \
    -cp "$cp" org.apache.zookeeper.server.quorum.QuorumPeerMain "$dir/zoo.cfg" \
    >>"$dir/zk.log" 2>&1 </dev/null &
  echo $! >"$dir/pid"
  local deadline=$((SECONDS + wait_s))
  until answers "$port"; do
    if ! running; then
      tail -20 "$dir/zk.log" >&2 || true
      rm -f "$dir/pid"
      die "the server exited during start-up (log: $dir/zk.log)"
    fi
    if ((SECONDS >= deadline)); then
      stop
      die "no answer on 127.0.0.1:$port after ${wait_s}s (log: $dir/zk.log)"
    fi
    sleep 0.2
  done
  echo "127.0.0.1:$port" >"$dir/address"
  echo "zk.sh: ZooKeeper on 127.0.0.1:$port, pid $(cat "$dir/pid"), directory $dir"
}

stop() {
  if ! [[ -f $dir/pid ]]; then
    echo "zk.sh: nothing started in $dir"
    return 0
  fi
  local pid
  pid=$(cat "$dir/pid")
  if kill -0 "$pid" 2>/dev/null; then
    kill "$pid" 2>/dev/null || true
    for _ in $(seq 50); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
    kill -9 "$pid" 2>/dev/null || true
  fi
  rm -f "$dir/pid" "$dir/address"
  echo "zk.sh: stopped pid $pid"
}

case $cmd in
start) start ;;
stop) stop ;;
address) [[ -f $dir/address ]] && cat "$dir/address" || die "not running ($dir)" ;;
*) die "usage: zk.sh start|stop|address [DIR]" ;;
esac
