#pragma once

/// What the plugins of this folder and the test that loads them as the model library agree on. What
/// a text to encode or the last part of a model's directory makes them do is `act` in plugin.cpp.
namespace tovana::testing {

/// A plugin that hangs, here or in its constructor, writes a byte to this descriptor first.
inline constexpr int kHangingDescriptor = 100;

/// The model's vectors: the length of the text and its prompt, name included, the thread count, and 1 for
/// normalised ones, 2 more for a model in bfloat16. Its tokens are the bytes of the text.
inline constexpr int kPluginDimension = 3;

}  // namespace tovana::testing
