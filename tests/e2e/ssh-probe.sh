#!/bin/sh
# Uploaded to the remote host by the end-to-end tests of scripts over SSH.
echo "probe ran in $(basename "$(dirname "$0")")"
