// The GPU engine's header. This version of the library has none of it yet; the header is here so
// that a client's include list needs no change when it comes.
#pragma once

#include "platform/export.h"
