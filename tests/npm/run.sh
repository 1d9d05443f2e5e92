#!/usr/bin/env bash
# Runs the npm soap client against morphel-server, over HTTP and over HTTPS (the server's self-signed
# certificate trusted by node as an extra authority): BUILD_DIR [WORK_DIR]
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
free_port() { python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'; }
wait_port() {
    for _ in $(seq 100); do
        if python3 -c "import socket; socket.create_connection(('127.0.0.1', $1), 1)" 2>/dev/null; then return 0; fi
        sleep 0.1
    done
    return 1
}
port=$(free_port)
tls_port=$(free_port)
rm -rf "$work/state"
"$build/tools/morphel-server/morphel-server" --listen "127.0.0.1:$port" 2>"$work/server.log" &
server=$!
"$build/tools/morphel-server/morphel-server" --listen "127.0.0.1:$tls_port" --tls --state "$work/state" 2>"$work/server-tls.log" &
tls_server=$!
trap 'kill $server $tls_server 2>/dev/null; wait $server $tls_server 2>/dev/null || true' EXIT
wait_port "$port"
wait_port "$tls_port"
NODE_PATH="$work/node_modules" node "$here/soap_client.js" "$work/morphel.wsdl" "http://127.0.0.1:$port/morphel"
NODE_PATH="$work/node_modules" NODE_EXTRA_CA_CERTS="$work/state/certificate.pem" \
    node "$here/soap_client.js" "$work/morphel.wsdl" "https://127.0.0.1:$tls_port/morphel"
