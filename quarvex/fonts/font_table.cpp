#include "fonts/font_table.h"

namespace qx::fonts {
namespace {

// Monospaced faces. Nimbus Mono PS carries Courier's shapes and metrics (0.6 em advance);
// Liberation Mono shares those metrics with a heavier, Courier New-like stroke.
constexpr FaceFile kMonoR[] = {{"NimbusMonoPS-Regular.otf", "Nimbus Mono PS", "Regular"},
                               {"LiberationMono-Regular.ttf", "Liberation Mono", "Regular"},
                               {"DejaVuSansMono.ttf", "DejaVu Sans Mono", "Book"},
                               {nullptr, nullptr, nullptr}};
constexpr FaceFile kMonoB[] = {{"NimbusMonoPS-Bold.otf", "Nimbus Mono PS", "Bold"},
                               {"LiberationMono-Bold.ttf", "Liberation Mono", "Bold"},
                               {"DejaVuSansMono-Bold.ttf", "DejaVu Sans Mono", "Bold"},
                               {nullptr, nullptr, nullptr}};
constexpr FaceFile kMonoI[] = {{"NimbusMonoPS-Italic.otf", "Nimbus Mono PS", "Italic"},
                               {"LiberationMono-Italic.ttf", "Liberation Mono", "Italic"},
                               {"DejaVuSansMono-Oblique.ttf", "DejaVu Sans Mono", "Oblique"},
                               {nullptr, nullptr, nullptr}};
constexpr FaceFile kMonoBI[] = {{"NimbusMonoPS-BoldItalic.otf", "Nimbus Mono PS", "Bold Italic"},
                                {"LiberationMono-BoldItalic.ttf", "Liberation Mono", "Bold Italic"},
                                {"DejaVuSansMono-BoldOblique.ttf", "DejaVu Sans Mono", "Bold Oblique"},
                                {nullptr, nullptr, nullptr}};

// Letter Gothic and Line Printer: a plain monospaced sans serif is the nearest there is.
constexpr FaceFile kGothicR[] = {{"LiberationMono-Regular.ttf", "Liberation Mono", "Regular"},
                                 {"DejaVuSansMono.ttf", "DejaVu Sans Mono", "Book"},
                                 {"NimbusMonoPS-Regular.otf", "Nimbus Mono PS", "Regular"},
                                 {nullptr, nullptr, nullptr}};
constexpr FaceFile kGothicB[] = {{"LiberationMono-Bold.ttf", "Liberation Mono", "Bold"},
                                 {"DejaVuSansMono-Bold.ttf", "DejaVu Sans Mono", "Bold"},
                                 {"NimbusMonoPS-Bold.otf", "Nimbus Mono PS", "Bold"},
                                 {nullptr, nullptr, nullptr}};
constexpr FaceFile kGothicI[] = {{"LiberationMono-Italic.ttf", "Liberation Mono", "Italic"},
                                 {"DejaVuSansMono-Oblique.ttf", "DejaVu Sans Mono", "Oblique"},
                                 {"NimbusMonoPS-Italic.otf", "Nimbus Mono PS", "Italic"},
                                 {nullptr, nullptr, nullptr}};
constexpr FaceFile kLinePrinter[] = {{"DejaVuSansMono.ttf", "DejaVu Sans Mono", "Book"},
                                     {"LiberationMono-Regular.ttf", "Liberation Mono", "Regular"},
                                     {"NimbusMonoPS-Regular.otf", "Nimbus Mono PS", "Regular"},
                                     {nullptr, nullptr, nullptr}};

// Serif: CG Times / Times take Nimbus Roman first, Times New Roman takes Liberation Serif.
constexpr FaceFile kRomanR[] = {{"NimbusRoman-Regular.otf", "Nimbus Roman", "Regular"},
                                {"LiberationSerif-Regular.ttf", "Liberation Serif", "Regular"},
                                {"DejaVuSerif.ttf", "DejaVu Serif", "Book"},
                                {nullptr, nullptr, nullptr}};
constexpr FaceFile kRomanB[] = {{"NimbusRoman-Bold.otf", "Nimbus Roman", "Bold"},
                                {"LiberationSerif-Bold.ttf", "Liberation Serif", "Bold"},
                                {"DejaVuSerif-Bold.ttf", "DejaVu Serif", "Bold"},
                                {nullptr, nullptr, nullptr}};
constexpr FaceFile kRomanI[] = {{"NimbusRoman-Italic.otf", "Nimbus Roman", "Italic"},
                                {"LiberationSerif-Italic.ttf", "Liberation Serif", "Italic"},
                                {"DejaVuSerif-Italic.ttf", "DejaVu Serif", "Italic"},
                                {nullptr, nullptr, nullptr}};
constexpr FaceFile kRomanBI[] = {{"NimbusRoman-BoldItalic.otf", "Nimbus Roman", "Bold Italic"},
                                 {"LiberationSerif-BoldItalic.ttf", "Liberation Serif", "Bold Italic"},
                                 {"DejaVuSerif-BoldItalic.ttf", "DejaVu Serif", "Bold Italic"},
                                 {nullptr, nullptr, nullptr}};
constexpr FaceFile kSerifR[] = {{"LiberationSerif-Regular.ttf", "Liberation Serif", "Regular"},
                                {"NimbusRoman-Regular.otf", "Nimbus Roman", "Regular"},
                                {"DejaVuSerif.ttf", "DejaVu Serif", "Book"},
                                {nullptr, nullptr, nullptr}};
constexpr FaceFile kSerifB[] = {{"LiberationSerif-Bold.ttf", "Liberation Serif", "Bold"},
                                {"NimbusRoman-Bold.otf", "Nimbus Roman", "Bold"},
                                {"DejaVuSerif-Bold.ttf", "DejaVu Serif", "Bold"},
                                {nullptr, nullptr, nullptr}};
constexpr FaceFile kSerifI[] = {{"LiberationSerif-Italic.ttf", "Liberation Serif", "Italic"},
                                {"NimbusRoman-Italic.otf", "Nimbus Roman", "Italic"},
                                {"DejaVuSerif-Italic.ttf", "DejaVu Serif", "Italic"},
                                {nullptr, nullptr, nullptr}};
constexpr FaceFile kSerifBI[] = {{"LiberationSerif-BoldItalic.ttf", "Liberation Serif", "Bold Italic"},
                                 {"NimbusRoman-BoldItalic.otf", "Nimbus Roman", "Bold Italic"},
                                 {"DejaVuSerif-BoldItalic.ttf", "DejaVu Serif", "Bold Italic"},
                                 {nullptr, nullptr, nullptr}};

// Sans serif: Univers and Helvetica take Nimbus Sans first, Arial takes Liberation Sans.
constexpr FaceFile kSansR[] = {{"NimbusSans-Regular.otf", "Nimbus Sans", "Regular"},
                               {"LiberationSans-Regular.ttf", "Liberation Sans", "Regular"},
                               {"DejaVuSans.ttf", "DejaVu Sans", "Book"},
                               {nullptr, nullptr, nullptr}};
constexpr FaceFile kSansB[] = {{"NimbusSans-Bold.otf", "Nimbus Sans", "Bold"},
                               {"LiberationSans-Bold.ttf", "Liberation Sans", "Bold"},
                               {"DejaVuSans-Bold.ttf", "DejaVu Sans", "Bold"},
                               {nullptr, nullptr, nullptr}};
constexpr FaceFile kSansI[] = {{"NimbusSans-Italic.otf", "Nimbus Sans", "Italic"},
                               {"LiberationSans-Italic.ttf", "Liberation Sans", "Italic"},
                               {"DejaVuSans-Oblique.ttf", "DejaVu Sans", "Oblique"},
                               {nullptr, nullptr, nullptr}};
constexpr FaceFile kSansBI[] = {{"NimbusSans-BoldItalic.otf", "Nimbus Sans", "Bold Italic"},
                                {"LiberationSans-BoldItalic.ttf", "Liberation Sans", "Bold Italic"},
                                {"DejaVuSans-BoldOblique.ttf", "DejaVu Sans", "Bold Oblique"},
                                {nullptr, nullptr, nullptr}};
constexpr FaceFile kArialR[] = {{"LiberationSans-Regular.ttf", "Liberation Sans", "Regular"},
                                {"NimbusSans-Regular.otf", "Nimbus Sans", "Regular"},
                                {"DejaVuSans.ttf", "DejaVu Sans", "Book"},
                                {nullptr, nullptr, nullptr}};
constexpr FaceFile kArialB[] = {{"LiberationSans-Bold.ttf", "Liberation Sans", "Bold"},
                                {"NimbusSans-Bold.otf", "Nimbus Sans", "Bold"},
                                {"DejaVuSans-Bold.ttf", "DejaVu Sans", "Bold"},
                                {nullptr, nullptr, nullptr}};
constexpr FaceFile kArialI[] = {{"LiberationSans-Italic.ttf", "Liberation Sans", "Italic"},
                                {"NimbusSans-Italic.otf", "Nimbus Sans", "Italic"},
                                {"DejaVuSans-Oblique.ttf", "DejaVu Sans", "Oblique"},
                                {nullptr, nullptr, nullptr}};
constexpr FaceFile kArialBI[] = {{"LiberationSans-BoldItalic.ttf", "Liberation Sans", "Bold Italic"},
                                 {"NimbusSans-BoldItalic.otf", "Nimbus Sans", "Bold Italic"},
                                 {"DejaVuSans-BoldOblique.ttf", "DejaVu Sans", "Bold Oblique"},
                                 {nullptr, nullptr, nullptr}};
constexpr FaceFile kNarrowR[] = {{"NimbusSansNarrow-Regular.otf", "Nimbus Sans Narrow", "Regular"},
                                 {"LiberationSansNarrow-Regular.ttf", "Liberation Sans Narrow", "Regular"},
                                 {nullptr, nullptr, nullptr}};
constexpr FaceFile kNarrowB[] = {{"NimbusSansNarrow-Bold.otf", "Nimbus Sans Narrow", "Bold"},
                                 {"LiberationSansNarrow-Bold.ttf", "Liberation Sans Narrow", "Bold"},
                                 {nullptr, nullptr, nullptr}};
constexpr FaceFile kNarrowI[] = {{"NimbusSansNarrow-Oblique.otf", "Nimbus Sans Narrow", "Oblique"},
                                 {"LiberationSansNarrow-Italic.ttf", "Liberation Sans Narrow", "Italic"},
                                 {nullptr, nullptr, nullptr}};
constexpr FaceFile kNarrowBI[] = {{"NimbusSansNarrow-BoldOblique.otf", "Nimbus Sans Narrow", "Bold Oblique"},
                                  {"LiberationSansNarrow-BoldItalic.ttf", "Liberation Sans Narrow", "Bold Italic"},
                                  {nullptr, nullptr, nullptr}};

// Other PostScript-compatible families.
constexpr FaceFile kPalR[] = {{"P052-Roman.otf", "P052", "Roman"}, {nullptr, nullptr, nullptr}};
constexpr FaceFile kPalB[] = {{"P052-Bold.otf", "P052", "Bold"}, {nullptr, nullptr, nullptr}};
constexpr FaceFile kPalI[] = {{"P052-Italic.otf", "P052", "Italic"}, {nullptr, nullptr, nullptr}};
constexpr FaceFile kPalBI[] = {{"P052-BoldItalic.otf", "P052", "Bold Italic"}, {nullptr, nullptr, nullptr}};
constexpr FaceFile kCentR[] = {{"C059-Roman.otf", "C059", "Roman"}, {nullptr, nullptr, nullptr}};
constexpr FaceFile kCentB[] = {{"C059-Bold.otf", "C059", "Bold"}, {nullptr, nullptr, nullptr}};
constexpr FaceFile kCentI[] = {{"C059-Italic.otf", "C059", "Italic"}, {nullptr, nullptr, nullptr}};
constexpr FaceFile kCentBI[] = {{"C059-BdIta.otf", "C059", "Bold Italic"}, {nullptr, nullptr, nullptr}};
constexpr FaceFile kBookR[] = {{"URWBookman-Light.otf", "URW Bookman", "Light"}, {nullptr, nullptr, nullptr}};
constexpr FaceFile kBookB[] = {{"URWBookman-Demi.otf", "URW Bookman", "Demi"}, {nullptr, nullptr, nullptr}};
constexpr FaceFile kBookI[] = {{"URWBookman-LightItalic.otf", "URW Bookman", "Light Italic"},
                               {nullptr, nullptr, nullptr}};
constexpr FaceFile kBookBI[] = {{"URWBookman-DemiItalic.otf", "URW Bookman", "Demi Italic"},
                                {nullptr, nullptr, nullptr}};
constexpr FaceFile kGothR[] = {{"URWGothic-Book.otf", "URW Gothic", "Book"}, {nullptr, nullptr, nullptr}};
constexpr FaceFile kGothB[] = {{"URWGothic-Demi.otf", "URW Gothic", "Demi"}, {nullptr, nullptr, nullptr}};
constexpr FaceFile kGothI[] = {{"URWGothic-BookOblique.otf", "URW Gothic", "Book Oblique"},
                               {nullptr, nullptr, nullptr}};
constexpr FaceFile kGothBI[] = {{"URWGothic-DemiOblique.otf", "URW Gothic", "Demi Oblique"},
                                {nullptr, nullptr, nullptr}};
constexpr FaceFile kChancery[] = {{"Z003-MediumItalic.otf", "Z003", "Medium Italic"},
                                  {nullptr, nullptr, nullptr}};
constexpr FaceFile kSymbol[] = {{"StandardSymbolsPS.otf", "Standard Symbols PS", "Regular"},
                                {nullptr, nullptr, nullptr}};
constexpr FaceFile kDingbats[] = {{"D050000L.otf", "D050000L", "Regular"}, {nullptr, nullptr, nullptr}};
// Wingdings prints through the Unicode characters of its symbol set. Symbola draws every one of
// them (the pictographs, clock faces and arrows Unicode 7.0 added for Wingdings among them);
// DejaVu Sans draws about half.
constexpr FaceFile kWingdings[] = {{"Symbola_hint.ttf", "Symbola", "Regular"},
                                   {"DejaVuSans.ttf", "DejaVu Sans", "Book"},
                                   {nullptr, nullptr, nullptr}};

// family, PCL XL name, typeface, proportional, bold, italic, internal font number, symbolic, files
constexpr FaceEntry kFaces[] = {
    {"Courier", "Courier         ", 4099, false, false, false, 0, false, kMonoR},
    {"CG Times", "CG Times        ", 4101, true, false, false, 1, false, kRomanR},
    {"CG Times", "CG Times      Bd", 4101, true, true, false, 2, false, kRomanB},
    {"CG Times", "CG Times      It", 4101, true, false, true, 3, false, kRomanI},
    {"CG Times", "CG Times    BdIt", 4101, true, true, true, 4, false, kRomanBI},
    {"CG Omega", "CG Omega        ", 4113, true, false, false, 5, false, kSansR},
    {"CG Omega", "CG Omega      Bd", 4113, true, true, false, 6, false, kSansB},
    {"CG Omega", "CG Omega      It", 4113, true, false, true, 7, false, kSansI},
    {"CG Omega", "CG Omega    BdIt", 4113, true, true, true, 8, false, kSansBI},
    {"Coronet", "Coronet         ", 4116, true, false, true, 9, false, kChancery},
    {"Clarendon", "Clarendon   CdBd", 4140, true, true, false, 10, false, kCentB},
    {"Univers", "Univers       Md", 4148, true, false, false, 11, false, kSansR},
    {"Univers", "Univers       Bd", 4148, true, true, false, 12, false, kSansB},
    {"Univers", "Univers     MdIt", 4148, true, false, true, 13, false, kSansI},
    {"Univers", "Univers     BdIt", 4148, true, true, true, 14, false, kSansBI},
    {"Antique Olive", "Antique Olv     ", 4168, true, false, false, 19, false, kSansR},
    {"Antique Olive", "Antique Olv   Bd", 4168, true, true, false, 20, false, kSansB},
    {"Antique Olive", "Antique Olv   It", 4168, true, false, true, 21, false, kSansI},
    {"Garamond", "Garamond Antiqua", 4197, true, false, false, 22, false, kPalR},
    {"Garamond", "Garamond     Hlb", 4197, true, true, false, 23, false, kPalB},
    {"Garamond", "Garamond    Krsv", 4197, true, false, true, 24, false, kPalI},
    {"Garamond", "Garamond KrsvHlb", 4197, true, true, true, 25, false, kPalBI},
    {"Marigold", "Marigold        ", 4297, true, false, false, 26, false, kChancery},
    {"Albertus", "Albertus      Md", 4362, true, false, false, 27, false, kSansR},
    {"Albertus", "Albertus      XB", 4362, true, true, false, 28, false, kSansB},
    {"Arial", "Arial           ", 16602, true, false, false, 29, false, kArialR},
    {"Arial", "Arial         Bd", 16602, true, true, false, 30, false, kArialB},
    {"Arial", "Arial         It", 16602, true, false, true, 31, false, kArialI},
    {"Arial", "Arial       BdIt", 16602, true, true, true, 32, false, kArialBI},
    {"Times New Roman", "Times New       ", 16901, true, false, false, 33, false, kSerifR},
    {"Times New Roman", "Times New     Bd", 16901, true, true, false, 34, false, kSerifB},
    {"Times New Roman", "Times New     It", 16901, true, false, true, 35, false, kSerifI},
    {"Times New Roman", "Times New   BdIt", 16901, true, true, true, 36, false, kSerifBI},
    {"Symbol", "Symbol          ", 16686, true, false, false, 37, true, kSymbol},
    {"Wingdings", "Wingdings       ", 31402, true, false, false, 38, true, kWingdings},
    {"Courier", "Courier       Bd", 4099, false, true, false, 39, false, kMonoB},
    {"Courier", "Courier       It", 4099, false, false, true, 40, false, kMonoI},
    {"Courier", "Courier     BdIt", 4099, false, true, true, 41, false, kMonoBI},
    {"Letter Gothic", "Letter Gothic   ", 4102, false, false, false, 42, false, kGothicR},
    {"Letter Gothic", "Letter Gothic Bd", 4102, false, true, false, 43, false, kGothicB},
    {"Letter Gothic", "Letter Gothic It", 4102, false, false, true, 44, false, kGothicI},
    {"Line Printer", "Line Printer    ", 0, false, false, false, 45, false, kLinePrinter},
    // PostScript families that later printers carry in PCL too.
    {"Helvetica", "Helvetica       ", 24580, true, false, false, -1, false, kSansR},
    {"Helvetica", "Helvetica     Bd", 24580, true, true, false, -1, false, kSansB},
    {"Helvetica", "Helvetica     Ob", 24580, true, false, true, -1, false, kSansI},
    {"Helvetica", "Helvetica   BdOb", 24580, true, true, true, -1, false, kSansBI},
    {"Helvetica Narrow", "Helvetica Nr    ", 24580, true, false, false, -1, false, kNarrowR},
    {"Helvetica Narrow", "Helvetica Nr  Bd", 24580, true, true, false, -1, false, kNarrowB},
    {"Helvetica Narrow", "Helvetica Nr  Ob", 24580, true, false, true, -1, false, kNarrowI},
    {"Helvetica Narrow", "Helvetica NrBdOb", 24580, true, true, true, -1, false, kNarrowBI},
    {"Times", "Times         Rg", 25093, true, false, false, -1, false, kRomanR},
    {"Times", "Times         Bd", 25093, true, true, false, -1, false, kRomanB},
    {"Times", "Times         It", 25093, true, false, true, -1, false, kRomanI},
    {"Times", "Times       BdIt", 25093, true, true, true, -1, false, kRomanBI},
    {"Courier PS", "CourierPS       ", 24579, false, false, false, -1, false, kMonoR},
    {"Courier PS", "CourierPS     Bd", 24579, false, true, false, -1, false, kMonoB},
    {"Courier PS", "CourierPS     Ob", 24579, false, false, true, -1, false, kMonoI},
    {"Courier PS", "CourierPS   BdOb", 24579, false, true, true, -1, false, kMonoBI},
    {"Palatino", "Palatino      Rg", 24591, true, false, false, -1, false, kPalR},
    {"Palatino", "Palatino      Bd", 24591, true, true, false, -1, false, kPalB},
    {"Palatino", "Palatino      It", 24591, true, false, true, -1, false, kPalI},
    {"Palatino", "Palatino    BdIt", 24591, true, true, true, -1, false, kPalBI},
    {"New Century Schoolbook", "NewCntrySchlbkRg", 24703, true, false, false, -1, false, kCentR},
    {"New Century Schoolbook", "NewCntrySchlbkBd", 24703, true, true, false, -1, false, kCentB},
    {"New Century Schoolbook", "NewCntrySchlbkIt", 24703, true, false, true, -1, false, kCentI},
    {"New Century Schoolbook", "NwCntrySchlbkBdI", 24703, true, true, true, -1, false, kCentBI},
    {"ITC Bookman", "ITCBookman    Lt", 24607, true, false, false, -1, false, kBookR},
    {"ITC Bookman", "ITCBookman    Dm", 24607, true, true, false, -1, false, kBookB},
    {"ITC Bookman", "ITCBookman  LtIt", 24607, true, false, true, -1, false, kBookI},
    {"ITC Bookman", "ITCBookman  DmIt", 24607, true, true, true, -1, false, kBookBI},
    {"ITC Avant Garde", "ITCAvantGard  Bk", 24613, true, false, false, -1, false, kGothR},
    {"ITC Avant Garde", "ITCAvantGard  Dm", 24613, true, true, false, -1, false, kGothB},
    {"ITC Avant Garde", "ITCAvantGardBkOb", 24613, true, false, true, -1, false, kGothI},
    {"ITC Avant Garde", "ITCAvantGardDmOb", 24613, true, true, true, -1, false, kGothBI},
    {"ITC Zapf Chancery", "ZapfChancery  It", 45099, true, false, true, -1, false, kChancery},
    {"ITC Zapf Dingbats", "ZapfDingbats    ", 45101, true, false, false, -1, true, kDingbats},
};

} // namespace

std::span<const FaceEntry> residentFaces() { return kFaces; }

} // namespace qx::fonts
