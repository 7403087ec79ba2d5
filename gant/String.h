#pragma once
#include <string>

namespace Gant {
using String = std::string;
// An entity's name: its key as text.
using Name = std::string;
} // namespace Gant
