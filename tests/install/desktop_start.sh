#!/usr/bin/env bash
# The installed application, started from its desktop entry under Xvfb, converts a file.
# Usage: desktop_start.sh ROOT WORK_DIR [SCREENSHOT.png]
source "$(dirname "$0")/common.sh"
root=$1 work=$2 shot=${3:-}
mkdir -p "$work"
make_resident_font_job "$work/statement-2026-11.pcl"
xvfb-run -a -s "-screen 0 1024x700x24" /usr/bin/python3 "$(dirname "$0")/desktop_start.py" \
    "$root/usr" "$work/session" "$work/statement-2026-11.pcl" ${shot:+"$shot"}
