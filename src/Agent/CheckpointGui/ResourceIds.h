#pragma once

/* Shared by the resource script and the code, so only what both understand. */

#define IDD_CHECKPOINT 101
#define IDS_TITLE 102
#define IDS_PROMPT 103
#define IDI_PROGRAM 104
#define IDC_CHECKPOINT_NAME 1002

#define TEXT_TITLE "Add VSS Checkpoint"
#define TEXT_PROMPT "Enter a name for a checkpoint"
