// The certificate authority this build pins; generated from the PEM file
// chosen at configure time.
#pragma once
extern const char* const PINNED_CA_PEM;
