#!/usr/bin/env bash
# Runs the npm soap client against morphel-server: BUILD_DIR [WORK_DIR]
# Installs the npm "soap" package into WORK_DIR (the registry must be reachable) the first time.
set -euo pipefail
build=$(cd "$1" && pwd)
work=${2:-$build/npm}
here=$(cd "$(dirname "$0")" && pwd)
mkdir -p "$work"
if [[ ! -d "$work/node_modules/soap" ]]; then
    npm install --prefix "$work" --no-audit --no-fund --silent soap@1 >/dev/null
fi
"$build/tools/morphel-types/morphel-types" wsdl --version version4 >"$work/morphel.wsdl"
port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
"$build/tools/morphel-server/morphel-server" --listen "127.0.0.1:$port" 2>"$work/server.log" &
server=$!
trap 'kill $server 2>/dev/null; wait $server 2>/dev/null || true' EXIT
for _ in $(seq 50); do
    if python3 -c "import socket; socket.create_connection(('127.0.0.1', $port), 1)" 2>/dev/null; then break; fi
    sleep 0.1
done
NODE_PATH="$work/node_modules" node "$here/soap_client.js" "$work/morphel.wsdl" "http://127.0.0.1:$port/morphel"
