#pragma once

// Registers the compiled-in resources (the window icon). Safe to call repeatedly;
// needed because the registration lives in a static library the linker may drop.
void InitTarnResources();
