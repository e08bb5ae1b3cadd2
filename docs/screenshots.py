#!/usr/bin/python3
"""Takes the screenshots in this folder from the running application.

Run under a virtual X server, from the repository's top folder, after building the stage:

    xvfb-run -a -s "-screen 0 1024x700x24" /usr/bin/python3 docs/screenshots.py build/stage/bin/quarvel

It starts the program, adds a few sample files through the Add File(s) dialog, types an output
folder, and captures the main window, the Setting dialog and the About dialog with ImageMagick's
`import`. Mouse and keyboard input go through the X server's XTEST extension.
"""

import ctypes
import os
import re
import shutil
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))

x11 = ctypes.CDLL("libX11.so.6")
xtst = ctypes.CDLL("libXtst.so.6")
x11.XOpenDisplay.restype = ctypes.c_void_p
x11.XOpenDisplay.argtypes = [ctypes.c_char_p]
x11.XFlush.argtypes = [ctypes.c_void_p]
x11.XStringToKeysym.restype = ctypes.c_ulong
x11.XStringToKeysym.argtypes = [ctypes.c_char_p]
x11.XKeysymToKeycode.restype = ctypes.c_ubyte
x11.XKeysymToKeycode.argtypes = [ctypes.c_void_p, ctypes.c_ulong]
xtst.XTestFakeMotionEvent.argtypes = [ctypes.c_void_p, ctypes.c_int, ctypes.c_int, ctypes.c_int,
                                      ctypes.c_ulong]
xtst.XTestFakeButtonEvent.argtypes = [ctypes.c_void_p, ctypes.c_uint, ctypes.c_int, ctypes.c_ulong]
xtst.XTestFakeKeyEvent.argtypes = [ctypes.c_void_p, ctypes.c_uint, ctypes.c_int, ctypes.c_ulong]

DPY = x11.XOpenDisplay(None)
if not DPY:
    sys.exit("no X display: run under xvfb-run")


def click(x, y):
    xtst.XTestFakeMotionEvent(DPY, -1, x, y, 0)
    x11.XFlush(DPY)
    time.sleep(0.15)
    xtst.XTestFakeButtonEvent(DPY, 1, 1, 0)
    xtst.XTestFakeButtonEvent(DPY, 1, 0, 0)
    x11.XFlush(DPY)
    time.sleep(0.3)


def move(x, y):
    xtst.XTestFakeMotionEvent(DPY, -1, x, y, 0)
    x11.XFlush(DPY)
    time.sleep(0.3)


SHIFTED = {'"': "quotedbl", "_": "underscore", ":": "colon"}
NAMED = {"/": "slash", ".": "period", "-": "minus", " ": "space", "\n": "Return"}


def key(name, shift=False):
    shift_code = x11.XKeysymToKeycode(DPY, x11.XStringToKeysym(b"Shift_L"))
    code = x11.XKeysymToKeycode(DPY, x11.XStringToKeysym(name.encode()))
    if shift:
        xtst.XTestFakeKeyEvent(DPY, shift_code, 1, 0)
    xtst.XTestFakeKeyEvent(DPY, code, 1, 0)
    xtst.XTestFakeKeyEvent(DPY, code, 0, 0)
    if shift:
        xtst.XTestFakeKeyEvent(DPY, shift_code, 0, 0)
    x11.XFlush(DPY)
    time.sleep(0.02)


def type_text(text):
    for ch in text:
        if ch in SHIFTED:
            key(SHIFTED[ch], shift=True)
        elif ch in NAMED:
            key(NAMED[ch])
        elif ch.isupper():
            key(ch, shift=True)
        else:
            key(ch)
    time.sleep(0.3)


def windows():
    """Mapped top-level windows: name -> (id, x, y, width, height)."""
    out = subprocess.run(["xwininfo", "-root", "-children"], capture_output=True,
                         text=True).stdout
    found = {}
    for line in out.splitlines():
        m = re.match(r'\s*(0x[0-9a-f]+) "(.*)": .* (\d+)x(\d+)\+(-?\d+)\+(-?\d+)\s+\+(-?\d+)\+(-?\d+)',
                     line)
        if not m:
            continue
        wid = m.group(1)
        state = subprocess.run(["xwininfo", "-id", wid], capture_output=True, text=True).stdout
        if "IsViewable" not in state:
            continue
        found[m.group(2)] = (wid, int(m.group(7)), int(m.group(8)), int(m.group(3)),
                             int(m.group(4)))
    return found


def wait_for(name, timeout=20):
    end = time.time() + timeout
    while time.time() < end:
        w = windows().get(name)
        if w:
            time.sleep(0.8)  # let it paint
            return windows()[name]
        time.sleep(0.2)
    sys.exit("window %r did not appear; windows: %r" % (name, list(windows())))


def wait_gone(name, timeout=10):
    end = time.time() + timeout
    while time.time() < end and name in windows():
        time.sleep(0.2)


def capture(win, filename):
    subprocess.run(["import", "-window", win[0], os.path.join(HERE, filename)], check=True)
    print("wrote", os.path.join(HERE, filename))


def main():
    program = os.path.abspath(sys.argv[1] if len(sys.argv) > 1 else "build/stage/bin/quarvel")
    work = os.path.join(tempfile.gettempdir(), "quarvel-demo")
    shutil.rmtree(work, ignore_errors=True)
    inputs = os.path.join(work, "spool")
    output = os.path.join(work, "tiff")
    os.makedirs(inputs)
    os.makedirs(output)
    # Only the names and sizes show in the list; nothing is converted.
    files = {"invoice-2024-031.pcl": 48213, "monthly-report.pxl": 152904,
             "brochure-colour.px3": 1287310, "delivery-note.prn": 23876,
             "statement-q3.spl": 96544}
    names = list(files)
    for n, size in files.items():
        with open(os.path.join(inputs, n), "wb") as f:
            f.write(b"\x1bE" + b"\n" * (size - 4) + b"\x1bE")

    env = dict(os.environ, QT_QPA_PLATFORM="xcb")
    proc = subprocess.Popen([program], env=env)
    try:
        main_win = wait_for("Quarvel")
        _, mx, my, _, _ = main_win

        # Add File(s): type the file names into the file dialog.
        click(mx + 80, my + 120)
        time.sleep(1.0)
        type_text(os.path.join(inputs, "") + "\n")
        time.sleep(0.8)
        type_text(" ".join('"%s"' % n for n in names) + "\n")
        time.sleep(1.0)

        # Output folder: type it into the line edit.
        click(mx + 300, my + 376)
        type_text(output)
        move(mx + 620, my + 375)  # hover the Convert button
        time.sleep(0.5)
        capture(windows()["Quarvel"], "screenshot-main.png")

        click(mx + 80, my + 270)
        setting = wait_for("Setting")
        capture(setting, "screenshot-setting.png")
        key("Escape")
        wait_gone("Setting")

        click(mx + 80, my + 320)
        about = wait_for("About ")
        capture(about, "screenshot-about.png")
        key("Escape")
        wait_gone("About ")
    finally:
        proc.terminate()
        proc.wait()


if __name__ == "__main__":
    main()
