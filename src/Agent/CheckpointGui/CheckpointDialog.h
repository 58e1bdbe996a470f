#pragma once

// The dialog in which an administrator names a checkpoint. OK is enabled while the name is not
// empty; it starts the agent with the name and closes the dialog. Everything here runs on the thread
// that shows the dialog.

#include "platform/Dialog.h"

#include <string>

/// The dialog procedure. Returns nonzero for a message it handled.
std::intptr_t Checkpoint(platform::DialogHandle dialog, std::uint32_t message, std::uintptr_t wParam,
                         std::intptr_t lParam);

/// The name that stands in the dialog's edit control, UTF-16. At most 65,535 units: longer names
/// lose multiples of 65,536 from their length.
[[nodiscard]] std::u16string getCheckpointName(platform::DialogHandle dialog);
