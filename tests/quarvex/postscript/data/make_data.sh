#!/bin/sh
# Regenerates the PostScript and PDF test files from their sources with the producers Debian
# ships: groff, a2ps, enscript, ps2pdf (Ghostscript) and LibreOffice. LibreOffice is slow to
# start, so its PDF is kept in the repository and only made again here.
set -e
cd "$(dirname "$0")"
groff -ms -t -Tps letter.ms > groff.ps
a2ps -q --medium=A4 -o a2ps.ps letter.ms
enscript -q -G -M Letter -o enscript.ps letter.ms
ps2pdf groff.ps groff.pdf
ps2pdf shapes.ps shapes.pdf
if command -v soffice >/dev/null; then
    tmp=$(mktemp -d)
    soffice --headless -env:UserInstallation=file://$tmp/profile --convert-to pdf --outdir "$tmp" libreoffice.fodt >/dev/null 2>&1
    cp "$tmp/libreoffice.pdf" libreoffice.pdf
    rm -rf "$tmp"
fi
# As a PostScript driver spools it: PJL around PostScript, then a PCL job and a PDF job in the
# same file, each behind its own Universal Exit Language sequence.
uel=$(printf '\033%%-12345X')
{
    printf '%s@PJL JOB NAME="mixed"\r\n@PJL SET PAPER=A4\r\n@PJL SET RESOLUTION=300\r\n@PJL ENTER LANGUAGE = POSTSCRIPT\r\n' "$uel"
    cat shapes.ps
    printf '\004%s@PJL ENTER LANGUAGE = PCL\r\n' "$uel"
    cat ../../data/two_pages_ljet4_300dpi.pcl
    printf '%s@PJL ENTER LANGUAGE = PDF\r\n' "$uel"
    cat groff.pdf
    printf '%s@PJL EOJ\r\n%s' "$uel" "$uel"
} > mixed_jobs.prn
# PostScript with no page size of its own inside PJL that names the paper.
{
    printf '%s@PJL SET PAPER=A4\r\n@PJL ENTER LANGUAGE = POSTSCRIPT\r\n' "$uel"
    printf '%%!PS\n/Helvetica findfont 30 scalefont setfont 72 72 moveto (A4 from PJL) show\n'
    printf '0 0 moveto 595 842 lineto stroke showpage\n\004'
    printf '%s' "$uel"
} > pjl_paper.prn
