#!/usr/bin/python3
"""Starts the installed application from its desktop entry on an X server and converts a file.

Run under Xvfb with an installed tree (cmake --install build --prefix PREFIX):

    xvfb-run -a -s "-screen 0 1024x700x24" /usr/bin/python3 tests/install/desktop_start.py \
        PREFIX WORK_DIR INPUT [SCREENSHOT.png]

Like a desktop's launcher it finds the entry by its id in $XDG_DATA_DIRS (PREFIX/share first),
checks TryExec on PATH and runs the Exec line. Then, through the X server's XTEST extension,
it adds INPUT with the Add File(s) dialog, types the output folder and presses Convert, and waits
for the TIFF. Checks: the window belongs to PREFIX/lib/quarvel/bin/quarvel, and the engine it
started wrote a TIFF with ink on it. With SCREENSHOT the window is saved after the conversion
(xwd and netpbm).
"""

import os
import shlex
import shutil
import subprocess
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "docs"))
import screenshots as ui  # noqa: E402  (X helpers: click, type_text, windows, wait_for)

APP_ID = "example.tarnbeck.Quarvel"


def fail(message):
    sys.exit("FAIL: " + message)


def find_entry(env):
    for folder in env["XDG_DATA_DIRS"].split(":"):
        path = os.path.join(folder, "applications", APP_ID + ".desktop")
        if os.path.isfile(path):
            return path
    fail("no desktop entry %s in %s" % (APP_ID, env["XDG_DATA_DIRS"]))


def entry_keys(path):
    keys, group = {}, None
    for line in open(path, encoding="utf-8"):
        line = line.strip()
        if line.startswith("["):
            group = line
        elif group == "[Desktop Entry]" and "=" in line and not line.startswith("#"):
            k, v = line.split("=", 1)
            keys[k] = v
    return keys


def screenshot(win, path):
    xwd = subprocess.run(["xwd", "-silent", "-id", win[0]], check=True, capture_output=True).stdout
    pnm = subprocess.run(["xwdtopnm"], input=xwd, check=True, capture_output=True).stdout
    png = subprocess.run(["pnmtopng", "-compression", "9"], input=pnm, check=True,
                         capture_output=True).stdout
    with open(path, "wb") as f:
        f.write(png)
    print("wrote", path)


def main():
    prefix, work, source = (os.path.abspath(a) for a in sys.argv[1:4])
    shot = os.path.abspath(sys.argv[4]) if len(sys.argv) > 4 else None
    shutil.rmtree(work, ignore_errors=True)
    inputs, output, home = (os.path.join(work, d) for d in ("spool", "tiff", "home"))
    for d in (inputs, output, home):
        os.makedirs(d)
    name = os.path.basename(source)
    shutil.copy(source, os.path.join(inputs, name))

    env = {"DISPLAY": os.environ["DISPLAY"], "HOME": home,
           "PATH": os.path.join(prefix, "bin") + ":/usr/bin:/bin",
           "XDG_DATA_DIRS": os.path.join(prefix, "share") + ":/usr/share",
           "QT_QPA_PLATFORM": "xcb"}
    if "XAUTHORITY" in os.environ:
        env["XAUTHORITY"] = os.environ["XAUTHORITY"]
    keys = entry_keys(find_entry(env))
    if shutil.which(keys["TryExec"], path=env["PATH"]) is None:
        fail("TryExec %s is not on PATH" % keys["TryExec"])
    argv = [a for a in shlex.split(keys["Exec"]) if not (len(a) == 2 and a[0] == "%")]
    proc = subprocess.Popen(argv, env=env, cwd=home)
    try:
        win = ui.wait_for("Quarvel", timeout=60)
        exe = os.readlink("/proc/%d/exe" % proc.pid)
        expected = os.path.join(prefix, "lib", "quarvel", "bin", "quarvel")
        if os.path.realpath(exe) != os.path.realpath(expected):
            fail("the entry started %s, not %s" % (exe, expected))
        _, mx, my, _, _ = win
        ui.click(mx + 80, my + 120)              # Add File(s)
        time.sleep(1.5)
        ui.type_text(os.path.join(inputs, "") + "\n")
        time.sleep(1.0)
        ui.type_text(name + "\n")
        time.sleep(1.5)
        ui.click(mx + 300, my + 376)             # the output folder's line edit
        ui.type_text(output)
        ui.click(mx + 620, my + 375)             # Convert
        tif = os.path.join(output, os.path.splitext(name)[0] + ".tif")
        end = time.time() + 120
        while time.time() < end and not os.path.exists(tif):
            time.sleep(0.5)
        if not os.path.exists(tif):
            fail("no %s after Convert; output folder holds %s" % (tif, os.listdir(output)))
        time.sleep(1.0)
        from PIL import Image, ImageOps
        im = Image.open(tif)
        if ImageOps.invert(im.convert("L")).getbbox() is None:
            fail("the converted page is blank")
        print("converted %s from the desktop entry: %dx%d" % (tif, im.size[0], im.size[1]))
        if shot:
            screenshot(ui.windows()["Quarvel"], shot)
    finally:
        proc.terminate()
        proc.wait()


if __name__ == "__main__":
    main()
