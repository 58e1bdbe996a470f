#pragma once

/* The resource script includes this file too, so it holds nothing but macros. */

#define IDD_CHECKPOINT 101
#define IDS_TITLE 102
#define IDS_PROMPT 103
#define IDI_PROGRAM 104
#define IDC_CHECKPOINT_NAME 1002

#define TEXT_TITLE "Add VSS Checkpoint"
#define TEXT_PROMPT "Enter a name for a checkpoint"
