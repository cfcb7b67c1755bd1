#pragma once

/// The attribute that lists who points to an object. It is kept by the store and never counts as a
/// reference of its owner.
inline constexpr const char* reservedBy = "reservedBy";
