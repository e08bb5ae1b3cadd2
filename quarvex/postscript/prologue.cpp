#include "postscript/prologue.h"

namespace qx::postscript {

// Run once when the interpreter starts. Everything lives in the dictionary QX in userdict:
//  - the resolution rule: the page is rendered at exactly the pixel grid the engine's own
//    page geometry asks for, so that the engine copies pixels one to one. Fax and pixel sizes
//    (-gw/-gh) make the resolution depend on the page size, so every setpagedevice of a job is
//    followed by one that sets HWResolution for the new page size. Stroke adjustment follows
//    the new resolution as Ghostscript sets it up at start (on below 150 dpi, off above);
//  - the page report: EndPage writes the page size, the resolution and the resolution the
//    job declared on standard output, just before the page reaches the display device;
//  - the job runner: each job runs under save/restore inside stopped, so a failing job
//    reports its error and leaves nothing behind for the next one.
const char* prologue() {
    return R"PS(
userdict /QX 64 dict put
QX begin
/spd /setpagedevice load def
/declared null def
/fixed null def
/fallback [300 300] def
/gw 0 def /gh 0 def /fax -1 def
/eps null def
/quitting false def
/out (%stdout) (w) file def
/buf 128 string def
/put1 { QX /out get exch QX /buf get cvs writestring QX /out get ( ) writestring } bind def
/side { round dup 1 lt { pop 1 } if dup 65000 gt { pop 65000 } if } bind def
/res {
  QX begin
  /h exch def /w exch def
  fax 0 ge {
    1728 72 mul w div fax 0 eq { 98 } { 196 } ifelse
  } {
    gw 0 gt gh 0 gt or {
      gw 0 gt { gw } { gh w mul h div side } ifelse /wpx exch def
      gh 0 gt { gh } { gw h mul w div side } ifelse /hpx exch def
      wpx 72 mul w div hpx 72 mul h div
    } {
      fixed null ne { fixed aload pop } {
        declared null ne { declared aload pop } { fallback aload pop } ifelse
      } ifelse
    } ifelse
  } ifelse
  end
} bind def
/report {
  QX /out get (%%[QX ) writestring
  [ currentpagedevice /PageSize get aload pop
    currentpagedevice /HWResolution get aload pop
    QX /declared get dup null eq { pop 0 0 } { aload pop } ifelse ] { QX /put1 get exec } forall
  QX /out get (]%%\n) writestring QX /out get flushfile
} bind def
/fix {
  QX begin
  currentpagedevice /PageSize get aload pop res /yr exch def /xr exch def
  currentpagedevice /HWResolution get aload pop
  yr sub abs yr 1e-5 mul gt exch xr sub abs xr 1e-5 mul gt or {
    << /HWResolution [ xr yr ] >> spd
    xr yr 2 copy gt { exch } if pop 150 lt setstrokeadjust
  } if
  end
  QX /report get exec
} bind def
/endpage { exch pop 2 ne dup { QX /report get exec } if } bind def
/hook {
  dup type /dicttype eq {
    dup /HWResolution known {
      dup /HWResolution get dup type /arraytype eq {
        dup length 2 eq { QX /declared 3 -1 roll put } { pop } ifelse
      } { pop } ifelse
    } if
    dup /EndPage known {
      dup length 1 add dict copy
      dup /EndPage get [ exch /exec load /dup load { QX /report get exec } /if load ] cvx
      1 index /EndPage 3 -1 roll put
    } if
  } if
  QX /spd get exec
  QX /fix get exec
} bind def
/fail {
  QX /quitting get not {
    QX /out get (%%[QXERR ) writestring
    QX /out get (/) writestring $error /errorname get QX /put1 get exec
    $error /command get QX /put1 get exec
    QX /out get (]%%\n) writestring QX /out get flushfile
  } if
  $error /newerror false put
} bind def
/runjob {
  QX /quitting false put
  QX /jobsave save put
  stopped { QX /fail get exec } if
  clear cleardictstack
  QX /jobsave get restore
} bind def
/pagecount { currentpagedevice /PageCount get } bind def
/runps {
  QX /eps get null ne {
    QX /pages0 QX /pagecount get exec put
    QX /eps get aload pop pop pop neg exch neg exch translate
    (r) file cvx exec
    QX /pagecount get exec QX /pages0 get eq { showpage } if
  } {
    (r) file cvx exec
  } ifelse
} bind def
/pdfsize {
  dup /MediaBox known { dup /MediaBox get } { [ 0 0 612 792 ] } ifelse
  aload pop exch 4 -1 roll sub abs 3 1 roll exch sub abs
  2 index /Rotate known {
    2 index /Rotate get cvi 90 idiv abs 2 mod 1 eq { exch } if
  } if
  2 index /UserUnit known {
    2 index /UserUnit get dup 3 1 roll mul 3 1 roll mul exch
  } if
} bind def
/runpdf {
  (r) file runpdfbegin
  1 1 pdfpagecount {
    pdfgetpage dup null eq { pop } {
      QX /pdfsize get exec
      2 copy QX /res get exec 2 array astore 3 1 roll 2 array astore
      << /PageSize 3 -1 roll /HWResolution 5 -1 roll >> QX /spd get exec
      pdfshowpage
    } ifelse
  } for
  runpdfend
} bind def
end
userdict /setpagedevice QX /hook get put
userdict /quit { QX /quitting true put stop } bind put
<< /EndPage QX /endpage get >> QX /spd get exec
)PS";
}

} // namespace qx::postscript
