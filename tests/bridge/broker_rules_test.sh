#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The broker's configuration and access rules of packaging/bridge, on a real Mosquitto with TLS: who
# can publish and read what.
#
#   broker_rules_test.sh SOURCES
set -euo pipefail
packaging=$1/packaging/bridge
work=$(mktemp -d)
broker=
client_id=
cleanup() {
    [[ -z $broker ]] || kill "$broker" 2>/dev/null || true
    rm -rf "$work"
}
trap cleanup EXIT
failed=0
fail() { echo "FAILED: $*" >&2; failed=1; }

# An authority and the broker's certificate, and one of another authority.
cd "$work"
for name in ca other; do
    openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2 \
        -subj "/CN=$name" -keyout $name.key -out $name.pem 2>/dev/null
done
openssl req -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -subj /CN=localhost \
    -keyout broker.key -out broker.csr 2>/dev/null
openssl x509 -req -in broker.csr -CA ca.pem -CAkey ca.key -CAcreateserial -days 2 \
    -extfile <(echo subjectAltName=DNS:localhost) -out broker.pem 2>/dev/null
printf '%s:%s\n' bridge-lab1 b viewer v operator o >passwords
mosquitto_passwd -U passwords
cp "$packaging/mosquitto.acl" acl

# The configuration as it is, at another port and with the files of this folder.
port=$((20000 + RANDOM % 20000))
sed -e "s|^listener 8883|listener $port localhost|" -e "s|/etc/mosquitto/certs|$work|" \
    -e "s|/etc/mosquitto/jovu\.|$work/|" "$packaging/mosquitto.conf" >conf
printf 'persistence_location %s/\nuser %s\n' "$work" "$(id -un)" >>conf
mosquitto -c conf >log 2>&1 &
broker=$!

client() { # PROGRAM USER ARGUMENTS...: a client of the program, as a user whose client id is $client_id or the same
    local program=$1 user=$2
    shift 2
    timeout 10 "$program" -V mqttv5 -h localhost -p "$port" --cafile ca.pem -i "${client_id:-$user}" -u "$user" \
        -P "${user:0:1}" -q 1 "$@"
}
for _ in {1..50}; do
    if client mosquitto_pub bridge-lab1 -t jovu/bridges/lab1 -n 2>/dev/null; then break; fi
    sleep 0.1
done

# who may publish: user, topic
may() { client mosquitto_pub "$1" -t "$2" -m x 2>&1 | grep -qi 'not authorized' && return 1 || return 0; }
while read -r allowed user topic; do
    if may "$user" "$topic"; then got=yes; else got=no; fi
    [[ $got == "$allowed" ]] || fail "$user publishes $topic: $got instead of $allowed"
done <<'END'
yes bridge-lab1 jovu/bridges/lab1
yes bridge-lab1 jovu/devices/A1/status
yes bridge-lab1 jovu/devices/A1/trace
yes bridge-lab1 jovu/responses/operator
no  bridge-lab1 jovu/bridges/lab2
no  bridge-lab1 jovu/devices/A1/request/gcode
no  bridge-lab1 elsewhere
yes operator jovu/devices/A1/request/call/heater_state_get
yes operator jovu/devices/A1/request/job
no  operator jovu/devices/A1/status
no  operator jovu/bridges/lab1
no  operator jovu/responses/viewer
no  viewer jovu/devices/A1/request/gcode
no  viewer jovu/devices/A1/request/status
no  viewer jovu/devices/A1/status
no  viewer jovu/responses/operator
yes viewer jovu/responses/viewer
END

# Who reads what: user, topic, publisher.
while read -r expected user topic publisher; do
    client mosquitto_sub "$user" -t "$topic" -C 1 -W 2 >received 2>/dev/null &
    reader=$!
    sleep 0.5
    client_id=publisher client mosquitto_pub "$publisher" -t "$topic" -m payload 2>/dev/null
    wait "$reader" || true
    if [[ $(cat received) == payload ]]; then got=yes; else got=no; fi
    [[ $got == "$expected" ]] || fail "$user reads $topic: $got instead of $expected"
done <<'END'
yes bridge-lab1 jovu/devices/A1/request/gcode operator
yes bridge-lab1 jovu/bridges/lab1 bridge-lab1
yes viewer jovu/devices/A1/status bridge-lab1
no  viewer jovu/devices/A1/request/gcode operator
no  viewer jovu/responses/operator bridge-lab1
yes operator jovu/responses/operator bridge-lab1
yes operator jovu/responses/operator/1 bridge-lab1
no  operator jovu/responses/viewer bridge-lab1
END

# Who gets in: the arguments of the client.
while read -r expected arguments; do
    # shellcheck disable=SC2086
    if timeout 10 mosquitto_pub -V mqttv5 -h localhost -p "$port" -t jovu/bridges/lab1 -m x -q 1 \
        $arguments >/dev/null 2>&1; then got=yes; else got=no; fi
    [[ $got == "$expected" ]] || fail "a client with '$arguments': $got instead of $expected"
done <<'END'
yes --cafile ca.pem -u bridge-lab1 -P b
no  --cafile ca.pem -u bridge-lab1 -P wrong
no  --cafile ca.pem -u nobody -P b
no  --cafile ca.pem
no  --cafile other.pem -u bridge-lab1 -P b
no  -u bridge-lab1 -P b
END

# The broker takes no message beyond its limit.
for size in 900000 1100000; do
    head -c "$size" /dev/zero >message
    client mosquitto_sub bridge-lab1 -t jovu/devices/A1/request/job -C 1 -W 2 -F %l >received 2>/dev/null &
    reader=$!
    sleep 0.5
    client mosquitto_pub operator -t jovu/devices/A1/request/job -f message || true
    wait "$reader" || true
    echo "$size: $(cat received)"
done >sizes
[[ $(cat sizes) == $'900000: 900000\n1100000: ' ]] || fail "sizes that arrived: $(cat sizes)"
[[ $failed -eq 0 ]] || { tail -n 20 log >&2; exit 1; }
echo "the broker's rules hold"
