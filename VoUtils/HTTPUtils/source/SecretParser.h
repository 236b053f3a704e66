// A parser for parameters that contain passwords: it wipes them. The proxy store uses it.
#pragma once

#include <base/VoDataParser.h>

class CSecretParser final : public CVoBinaryDataParser
{
public:
    ~CSecretParser() override { WipeAll(); }
};
