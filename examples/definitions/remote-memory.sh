#!/bin/sh
# Uploaded by the agent to each remote host of remote-hosts.xml: the host's name and its
# total and available memory in KB, on one line.
awk -v host="$(uname -n)" '{ v[$1] = $2 } END { print host, v["MemTotal:"], v["MemAvailable:"] }' /proc/meminfo
