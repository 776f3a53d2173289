#!/bin/sh
# Fails when a layer includes a library that belongs to a layer above it:
# dsp uses the standard library only, media adds FFmpeg but no Qt, the plot
# draws with Qt Gui (the command line uses it without Widgets), and the update
# feed stays free of windows.
src=${1:?usage: check_layers.sh SRC_DIR}
status=0
if grep -rnE '#include *[<"](Q[A-Za-z]*|lib(av|sw)[a-z]*/|(media|app|ui|cli)/)' "$src/dsp"; then
    echo "src/dsp must use the standard library only" >&2
    status=1
fi
if grep -rnE '#include *[<"](Q[A-Za-z]*|(app|plot|ui|cli)/)' "$src/media"; then
    echo "src/media must not use Qt or the layers above it" >&2
    status=1
fi
if [ -d "$src/app" ] && grep -rnE '#include *[<"](QtWidgets|QWidget|QApplication|QtGui|QPainter|QImage|plot/|ui/|cli/)' "$src/app"; then
    echo "src/app must not use Qt Widgets or the layers above it" >&2
    status=1
fi
if [ -d "$src/update" ] && grep -rnE '#include *[<"](QtWidgets|QWidget|QApplication|QDialog|Q[A-Za-z]*Box|(app|ui|cli)/)' "$src/update"; then
    echo "src/update must not use Qt Widgets or the layers above it" >&2
    status=1
fi
if [ -d "$src/plot" ] && grep -rnE '#include *[<"](QtWidgets|QWidget|QApplication|(app|ui|cli)/)' "$src/plot"; then
    echo "src/plot must not use Qt Widgets or the layers above it" >&2
    status=1
fi
exit $status
