/// @file
/// Reading event arguments.
#pragma once

#include <yajl/yajl_tree.h>

#include <memory>

#include "jovu/firmware_types.h"

/// @name Event arguments
/// Each reads the member @p key of the event's "args" object into @p out.
/// @return false, leaving @p out as it was, when a node is missing or of another kind.
/// @{

/// A text: an array of numbers, the low 8 bits of each one character. One more zero is kept behind
/// the characters.
bool event_ifc_deserialize_type(yajl_val args, const char* key, std::shared_ptr<char>& out);

/// A servo sample: an object with seven numbers, each cut to its field's width.
bool event_ifc_deserialize_type(yajl_val args, const char* key, servo_trace_msg& out);

/// @}
