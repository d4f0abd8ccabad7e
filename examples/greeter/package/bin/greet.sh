#!/bin/sh
# Greets once a minute with the last beat of the heartbeat service it depends on.
BEAT="${ZARNPKG_ROOT}/var/packages/heartbeat/target/heartbeat"
while true; do
    echo "greetings at $(date); heartbeat: $(cat "${BEAT}" 2>/dev/null || echo none)"
    sleep 60
done
