// Whether tests and programs run under an emulator: its own memory is part of each process, and no program starts
// another one of its kind by itself.
#pragma once

namespace orx {

#ifdef ORX_EMULATED
inline constexpr bool kEmulated = true;
#else
inline constexpr bool kEmulated = false;
#endif

}  // namespace orx
