// Parameters that hold passwords.
#pragma once

#include <base/VoDataParser.h>

class CSecretParser final : public CVoBinaryDataParser
{
public:
    ~CSecretParser() override { WipeAll(); }
};
