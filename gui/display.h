#pragma once

// Whether the manager has a screen to show its window and message boxes on.
namespace Tarn {

// An X11 or Wayland display named in the environment; always true where
// Qt's platforms need none.
bool DisplayInEnvironment();

// Someone could answer a message box: a display, and a platform in use that
// shows on it (not offscreen or minimal).
bool HasDisplay();

} // namespace Tarn
