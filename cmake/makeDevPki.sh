#!/bin/sh
# Development PKI for the build tree: a pinned authority, a server certificate it
# issued for the bundled local service, and a second, foreign authority with its
# own server certificate so tests can check that strangers are refused.
set -eu
out="$1"
mkdir -p "$out"
cd "$out"
umask 077
days=3650
if [ ! -s ca.crt ]; then
    openssl req -x509 -newkey rsa:4096 -nodes -sha256 -days $days \
        -subj "/O=hubTalk development/CN=hubTalk development CA" \
        -keyout ca.key -out ca.crt 2>/dev/null
fi
if [ ! -s server.crt ]; then
    openssl req -newkey rsa:2048 -nodes -sha256 -subj "/O=hubTalk development/CN=local-service" \
        -keyout server.key -out server.csr 2>/dev/null
    openssl x509 -req -in server.csr -CA ca.crt -CAkey ca.key -CAcreateserial \
        -days $days -sha256 -out server.crt 2>/dev/null
    rm -f server.csr
fi
if [ ! -s foreign-server.crt ]; then
    openssl req -x509 -newkey rsa:2048 -nodes -sha256 -days $days \
        -subj "/O=Somebody else/CN=foreign CA" -keyout foreign-ca.key -out foreign-ca.crt 2>/dev/null
    openssl req -newkey rsa:2048 -nodes -sha256 -subj "/O=Somebody else/CN=local-service" \
        -keyout foreign-server.key -out foreign-server.csr 2>/dev/null
    openssl x509 -req -in foreign-server.csr -CA foreign-ca.crt -CAkey foreign-ca.key -CAcreateserial \
        -days $days -sha256 -out foreign-server.crt 2>/dev/null
    rm -f foreign-server.csr
fi
chmod 644 ./*.crt
