#!/bin/sh
# A client in shell: sends one message, prints the answer.
#
#     client.sh NAME '{"command":"interval","seconds":2}'
#
# type=5 makes the socket one of sequenced packets; unix-tightsocklen=0 makes socat pass the whole
# address and not just the name. -T limits the wait for an answer. Names with a comma, a colon or
# an exclamation mark would need socat's own quoting.
set -eu

if [ $# -ne 2 ]; then
  echo "usage: client.sh NAME MESSAGE" >&2
  exit 2
fi
# One write makes one record, so the message goes out without a line's end and in one piece.
answer=$(printf %s "$2" | socat -T 10 -t 10 - "ABSTRACT-CONNECT:$1,type=5,unix-tightsocklen=0")
if [ -z "$answer" ]; then
  echo "client.sh: no answer" >&2
  exit 1
fi
printf '%s\n' "$answer"
