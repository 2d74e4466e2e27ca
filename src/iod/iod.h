// Initial object descriptor: the fixed template, written and read back.
#pragma once

#include <cstdint>
