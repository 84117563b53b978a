#pragma once

/// Keeps libtorch's statics from being destroyed at exit, while other threads still compute with
/// them or libtorch's constructors make more of them: its files register no exit handlers.
///
/// That is a library of its own, which does its work in a constructor: when libtorch's files have
/// been bound to the C library, and before any constructor of theirs has run. For that the library
/// on libtorch lists it as needed behind libtorch's files, whose constructors then run later.
///
/// A libtorch that the host had loaded before for itself keeps what it registered until then.
extern "C" __attribute__((visibility("default"))) bool tovana_torch_statics_stay() noexcept;
