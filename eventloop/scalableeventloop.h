#pragma once

namespace Tarn {

// Called before any application object, with or without a window: Qt's
// GLib-based event loop walks all its socket notifiers whenever one goes, and
// every client has some; Qt's plain Unix loop keeps them hashed. An explicit
// QT_NO_GLIB setting wins.
void PreferScalableEventLoop();

// Called before the application object of a program without a window: on
// Linux the main thread then runs on the epoll dispatcher, unless TARN_EPOLL=0
// asks for Qt's own (for comparison). Elsewhere Qt's own stays.
void UseScalableEventLoop();

} // namespace Tarn
