#pragma once

// The dialog in which an administrator names a checkpoint. OK is enabled while the name is not empty; it starts the
// agent with the name and closes the dialog. Everything here runs on the thread that shows the dialog.

#include "platform/Dialog.h"

#include <string>

/// The dialog procedure. Returns nonzero for a message that it has handled.
std::intptr_t Checkpoint(platform::DialogHandle dialog, std::uint32_t message, std::uintptr_t wParam,
                         std::intptr_t lParam);

/// Returns the text of the dialog's edit control in UTF-16. The control reports the length in one 16-bit word, so a
/// longer name is cut to its length modulo 65,536 units.
[[nodiscard]] std::u16string getCheckpointName(platform::DialogHandle dialog);
