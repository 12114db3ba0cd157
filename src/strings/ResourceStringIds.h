// The library's string resources that the string loaders are exercised with
// (ids 100-199). Included by XKComBsD.rc and by the tests, so the texts have one
// home. Plain preprocessor definitions only: the resource compiler reads this too.
#pragma once

#define QVIDS_STRINGS_SHORT     100  // a short ASCII text
#define QVIDS_STRINGS_EXACT_259 101  // exactly the 259 characters a loader keeps
#define QVIDS_STRINGS_LONG      102  // 300 characters: loaders keep the first 259
#define QVIDS_STRINGS_NON_ASCII 103  // characters beyond ASCII, some outside most code pages
#define QVIDS_STRINGS_EMPTY     104  // an empty text, which loads as nothing
#define QVIDS_STRINGS_MISSING   199  // no resource at all

#define QVIDS_STRINGS_TEN  "0123456789"
#define QVIDS_STRINGS_FIFTY \
  QVIDS_STRINGS_TEN QVIDS_STRINGS_TEN QVIDS_STRINGS_TEN QVIDS_STRINGS_TEN QVIDS_STRINGS_TEN
#define QVIDS_STRINGS_250 \
  QVIDS_STRINGS_FIFTY QVIDS_STRINGS_FIFTY QVIDS_STRINGS_FIFTY QVIDS_STRINGS_FIFTY QVIDS_STRINGS_FIFTY

#define QVIDS_STRINGS_SHORT_TEXT     "Short resource text"
#define QVIDS_STRINGS_EXACT_259_TEXT QVIDS_STRINGS_250 "ABCDEFGHI"
#define QVIDS_STRINGS_LONG_TEXT      QVIDS_STRINGS_250 "abcdefghi" "jklmnopqrstuvwxyz" QVIDS_STRINGS_TEN "ABCDEFGHIJKLMN"
// e with acute and u with diaeresis (in the Western code pages), then capital
// omega and a CJK ideograph (in few single-byte code pages).
#define QVIDS_STRINGS_NON_ASCII_TEXT L"Caf\x00e9 M\x00fcller \x03a9 \x4e2d"
