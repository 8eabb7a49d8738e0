// Which row loops bmp::Bitmap::insert uses, for the library's own tests.
//
// insert takes the widest loops the processor offers (on x86-64 with AVX2, 32-byte vectors;
// otherwise 16-byte vectors where the target has them, else machine words); the results are the
// same byte for byte. Tests switch between the kernels to check each against the models. The
// choice is process-wide and may be switched from any thread; an insert reads it once.
#pragma once

namespace bmp {
namespace internal {

enum class RowKernel {
  Portable,  // the target's own vectors or machine words
  Avx2,      // 32-byte vectors, x86-64 processors with AVX2 only
};

// True when this processor can run k.
bool rowKernelAvailable(RowKernel k);
// The kernel insert uses now; at start the widest available.
RowKernel rowKernel();
// Makes insert use k from now on; false, and nothing changes, where k is not available.
bool setRowKernel(RowKernel k);

}  // namespace internal
}  // namespace bmp
