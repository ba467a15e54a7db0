// The fast binary trace: descriptors, the ring and WEVL_PUT, and the dump decoder.
#pragma once

#include "Wevl/Decode.h"
#include "Wevl/Format.h"
#include "Wevl/MsgDesc.h"
#include "Wevl/Ring.h"
