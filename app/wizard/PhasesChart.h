// Draws the phases of the requests as bars on one scale.
#pragma once

#include "WizardModel.h"

#include <base/VoPlatform.h>

// Paints the whole rectangle. `unit` is the number of pixels of one at 96 dots an inch. Throws std::bad_alloc.
void DrawPhasesChart(HDC dc, const RECT& area, const CWizardChart& chart, HFONT font, int unit);
