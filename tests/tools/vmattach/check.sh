# Sourced by the vmattach end-to-end scripts: counts checks and reports them in the plain
# "N passed, N failed" form.
passed=0
failed=0

check() {  # check NAME CONDITION...
  local name=$1
  shift
  if "$@"; then
    passed=$((passed + 1))
  else
    failed=$((failed + 1))
    echo "FAILED: $name"
  fi
}

finish() {  # finish LABEL: prints the tally and exits non-zero when a check failed
  echo "$1: $passed passed, $failed failed"
  test "$failed" -eq 0
}

# Servers the script started (start_server), stopped by stop_server or stop_servers.
pids=()

# start_server LOG COMMAND...: starts COMMAND in the background, its output in LOG, and
# waits until it prints "listening on 127.0.0.1:PORT"; sets $port and $server_pid. Fails
# the script, showing LOG, when the process exits first or the line has not come within
# 60 s (it returns as soon as the line is there, so the bound only matters under load).
start_server() {
  local log=$1 deadline=$((SECONDS + 60)) alive
  shift
  # Emptied here, not by the child's redirection: a restarted server's log would otherwise
  # still show the last run's port until the child gets to run.
  : >"$log"
  "$@" >>"$log" 2>&1 &
  server_pid=$!
  pids+=("$server_pid")
  port=""
  while :; do
    # Liveness first: a line printed just before the process exited is still read.
    kill -0 "$server_pid" 2>/dev/null && alive=1 || alive=0
    port=$(sed -n 's/.*listening on 127\.0\.0\.1:\([0-9]*\).*/\1/p' "$log" | head -1)
    [ -n "$port" ] && return 0
    if [ "$alive" = 0 ]; then
      echo "FAILED: $1 exited before it listened: $(cat "$log")"
      break
    elif [ "$SECONDS" -ge "$deadline" ]; then
      echo "FAILED: $1 did not start within 60 s: $(cat "$log")"
      break
    fi
    sleep 0.1
  done
  stop_servers
  exit 1
}

stop_server() {  # stop_server PID: stops one server start_server started and waits for it
  local pid=$1 kept=() p
  kill "$pid" 2>/dev/null
  wait "$pid" 2>/dev/null
  for p in "${pids[@]}"; do [ "$p" = "$pid" ] || kept+=("$p"); done
  pids=("${kept[@]}")
}

stop_servers() {  # stops every server still running, for the script's EXIT trap
  while [ "${#pids[@]}" -gt 0 ]; do stop_server "${pids[0]}"; done
}

# setup_work: makes $work, a fresh folder for the script, and $TMPDIR below it (exported,
# so that the tool's work and download folders are where the script can look at them);
# on exit every server still running is stopped and $work removed.
setup_work() {
  work=$(mktemp -d)
  export TMPDIR="$work/tmp"
  mkdir -p "$TMPDIR"
  trap cleanup_work EXIT
}

cleanup_work() {  # the EXIT trap of setup_work
  stop_servers
  wait 2>/dev/null
  rm -rf "$work"
}

# start_cloud_service [ARGS...]: starts $vmcloudd on a free loopback port with its data in
# $work/service, the token "sekrit" and ARGS, its output in $work/service.log; sets $port
# and $server_pid as start_server does.
start_cloud_service() {
  start_server "$work/service.log" "$vmcloudd" --listen 127.0.0.1:0 --data "$work/service" \
    --token sekrit "$@"
}

# start_proxied_cloud_service PROXY_ARGS...: starts throttle_proxy.js (beside this file)
# with $work/target and PROXY_ARGS (its rate, count, down-rate and cut files), then
# vmcloudd as start_cloud_service does, with blob URLs that lead through the proxy; the web
# API is reached directly. Sets $port and $server_pid to vmcloudd's.
start_proxied_cloud_service() {
  start_server "$work/proxy.log" node "$(dirname "${BASH_SOURCE[0]}")/throttle_proxy.js" \
    "$work/target" "$@"
  start_cloud_service --public-url "http://127.0.0.1:$port"
  echo "127.0.0.1:$port" >"$work/target"
}

va() { "$vmattach" --data-dir "$work/data" "$@"; }  # va ARGS...: vmattach on $work/data

# json EXPR: prints a value of the JSON on stdin, e.g. json '["id"]' or json '[0]["type"]'.
json() {
  node -e "let s='';process.stdin.on('data',d=>s+=d).on('end',()=>console.log(String(JSON.parse(s)$1)))"
}

# kill_once CONDITION PID TRIES [INTERVAL]: runs CONDITION (a command without arguments)
# every INTERVAL seconds (0.05), at most TRIES times, while process PID runs, and kills PID
# with SIGKILL as soon as it holds; kills it at the end in any case and waits for it.
# Returns 0 when CONDITION held while PID still ran.
kill_once() {
  local condition=$1 pid=$2 tries=$3 interval=${4:-0.05} held=1
  for _ in $(seq "$tries"); do
    if "$condition"; then
      kill -KILL "$pid" 2>/dev/null && held=0
      break
    fi
    kill -0 "$pid" 2>/dev/null || break
    sleep "$interval"
  done
  kill -KILL "$pid" 2>/dev/null
  wait "$pid" 2>/dev/null
  return $held
}
