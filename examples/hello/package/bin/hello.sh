#!/bin/sh
# Writes a greeting every minute until it is stopped.
while true; do
    echo "hello from ${ZARNPKG_PKGNAME:-hello} at $(date)"
    sleep 60
done
