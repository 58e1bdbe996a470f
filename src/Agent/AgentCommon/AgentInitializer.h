#pragma once

// The start-up steps that the programs of the agent family share. For the main thread, once each.

/// Registers the defaults of the agent family's tweaks; what a tweak file sets stays. Makes the table of
/// tweaks and so reads its files.
void setAgentTweakDefaults();
