// The VXLAN overlay's state (generated from schema/VemoVxlan.toml), with the JSON form of the
// sequence numbers its received entries carry.
#pragma once

#include "Tolm/Seqno32Json.h"
#include "ZolGen/VemoVxlan.h"
