#!/bin/sh
# Tells whose package this is, as the install wizard was answered.
cat "$(dirname "$0")/../owner"
