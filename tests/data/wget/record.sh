#!/bin/sh
# Records what GNU wget prints (both streams) and its exit status for the transcripts beside this
# script: <case>.txt and <case>.exit. The options are those WgetUtil::buildArgs gives with the
# quiet flag and without following redirects (see docs/WGET.md). Run from anywhere:
#   sh tests/data/wget/record.sh
set -u
here=$(cd "$(dirname "$0")" && pwd)
fixture="$here/../../support/http_client_fixture.py"
work=$(mktemp -d /tmp/wget-record.XXXXXX)
trap 'kill $http_pid $https_pid 2>/dev/null; rm -rf "$work"' EXIT

openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 3650 \
    -subj "/CN=127.0.0.1" -addext "subjectAltName=IP:127.0.0.1" \
    -keyout "$work/server.key" -out "$work/server.pem" 2>/dev/null

python3 "$fixture" >"$work/http.port" &
http_pid=$!
python3 "$fixture" --cert "$work/server.pem" --key "$work/server.key" >"$work/https.port" &
https_pid=$!
while ! grep -q PORT "$work/http.port" 2>/dev/null || ! grep -q PORT "$work/https.port" 2>/dev/null
do
    sleep 0.1
done
http=$(cut -d' ' -f2 "$work/http.port")
https=$(cut -d' ' -f2 "$work/https.port")
# A port nobody listens on: the one of a server that has just gone.
python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])' \
    >"$work/refused.port"
refused=$(cat "$work/refused.port")

printf 'http_user = user\nhttp_password = secret\n' >"$work/wgetrc"
chmod 600 "$work/wgetrc"

record() {
    name=$1
    config=$2
    url=$3
    wget -q -S "$config" --no-netrc --no-proxy --no-hsts --tries=1 --timeout=30 \
        --max-redirect=0 -O "$work/body" -- "$url" >"$here/$name.txt" 2>&1
    echo $? >"$here/$name.exit"
}

record 200-ok --no-config "http://127.0.0.1:$http/file/20"
record 201-created --no-config "http://127.0.0.1:$http/created"
record 204-no-content --no-config "http://127.0.0.1:$http/status/204"
record 404-not-found --no-config "http://127.0.0.1:$http/status/404"
record 403-forbidden --no-config "http://127.0.0.1:$http/status/403"
record 401-basic --no-config "http://127.0.0.1:$http/basic/dev"
record 401-digest --no-config "http://127.0.0.1:$http/digest/dev"
record 401-then-200 "--config=$work/wgetrc" "http://127.0.0.1:$http/basic/dev"
record 301-moved --no-config "http://127.0.0.1:$http/moved"
record 302-relative --no-config "http://127.0.0.1:$http/found"
record connection-refused --no-config "http://127.0.0.1:$refused/file/20"
record untrusted-cert --no-config "https://127.0.0.1:$https/file/20"
