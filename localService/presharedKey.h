// The key of the data session, computed as the box computes it: the secret
// encoding of "<id>_<display name>". The service keeps display names plain;
// one kept enciphered (leading "~") is deciphered first, as the box does.
#pragma once
#include <string>

std::string presharedKey(const std::string& id, const std::string& displayName);
// A key of the same form that no box can know.
std::string wrongPresharedKey(const std::string& id, const std::string& displayName);
