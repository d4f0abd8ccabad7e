#!/bin/sh
# Writes the time into the heartbeat file every second until it is stopped.
while true; do
    date +%s >"$1.new" && mv -f "$1.new" "$1"
    sleep 1
done
