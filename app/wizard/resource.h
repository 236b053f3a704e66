// The numbers of the wizard's resources. A control shows the string of its own number (Strings.rc), so that all texts are in
// one table.
#pragma once

#define IDI_WIZARD 1

// Pages: the string of the same number is the title, the next one the subtitle.
#define IDD_SERVER 100
#define IDD_PROXY 102
#define IDD_CHECKING 104
#define IDD_RESULT 106

// Texts that are no control's text.
#define IDS_WIZARD 200

// The browser dialog: dialogs, controls and texts from 3000 on.
