#pragma once

namespace vantorix::render {

// Drawing text needs Qt's font database, which exists only while a QGuiApplication does. The
// desktop application makes its own before it draws anything, and then this does nothing. The
// command-line tool and the tests have none: the first call makes one on the "offscreen" platform
// plugin, which needs no display server, and keeps it for the rest of the process (it is never
// destroyed, so nothing drawn late during exit finds it gone). Fonts come from fontconfig; the
// chart asks for WenQuanYi Micro Hei, which has the Chinese glyphs.
//
// Call on the process's main thread, before any drawing; Qt expects its application object there.
// Qt's own diagnostics from an application made here go to the log (category "Render", debug
// level) instead of standard error, where they would mix with the tool's output.
void ensureGuiApplication();

}  // namespace vantorix::render
