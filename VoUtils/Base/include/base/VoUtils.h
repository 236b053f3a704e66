// General utilities: includes the headers of text, dates, variants, paths and INI values. For callers of the library; the base
// itself includes the single headers.
#pragma once

#include <base/VoDateTime.h>
#include <base/VoHResult.h>
#include <base/VoIniValues.h>
#include <base/VoPaths.h>
#include <base/VoText.h>
#include <base/VoTextConversion.h>
#include <base/VoVariant.h>
