#!/usr/bin/env bash
# Installs what is missing, builds, stages and starts the application. Without a display it
# starts on Qt's VNC platform: connect a VNC viewer to localhost:5900 to see it.
set -euo pipefail
cd "$(dirname "$0")/.."
tools/deps.sh
tools/build.sh
if [ -z "${DISPLAY:-}" ] && [ -z "${WAYLAND_DISPLAY:-}" ] && [ -z "${QT_QPA_PLATFORM:-}" ]; then
    echo "No display: showing the window on Qt's VNC platform; connect a VNC viewer to localhost:5900."
    export QT_QPA_PLATFORM=vnc:size=800x520
fi
exec build/stage/bin/quarvel
