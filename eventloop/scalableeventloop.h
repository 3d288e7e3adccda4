#pragma once

namespace Tarn {

// Called before the application object of a program without a window: on
// Linux the main thread then runs on the epoll dispatcher, unless TARN_EPOLL=0
// asks for Qt's own (for comparison). Elsewhere Qt's own stays.
void UseScalableEventLoop();

} // namespace Tarn
