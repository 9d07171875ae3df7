#pragma once

#include "trials/TemporaryFolder.h"

namespace VexelTest {

using VexelTrial::bytes_of;
using VexelTrial::put_bytes;
using VexelTrial::TemporaryFolder;

}  // namespace VexelTest
