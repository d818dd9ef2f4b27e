// The team's folder of real matrices, beside the project checkout.  A test
// that reads it starts with VELMORA_NEEDS_MATRIX_FOLDER(): without the
// folder it is skipped with a message naming it, instead of failing.
#ifndef VELMORA_TESTS_MATRIX_FOLDER_H
#define VELMORA_TESTS_MATRIX_FOLDER_H

#include <gtest/gtest.h>

#include <filesystem>
#include <system_error>

namespace testmat {

inline bool matrix_folder_present() {
  std::error_code ec;
  return std::filesystem::is_directory(VELMORA_MATRIX_DIR, ec);
}

}  // namespace testmat

#define VELMORA_NEEDS_MATRIX_FOLDER()    \
  if (!testmat::matrix_folder_present()) \
  GTEST_SKIP() << "the matrix folder " << VELMORA_MATRIX_DIR << " is absent"

#endif  // VELMORA_TESTS_MATRIX_FOLDER_H
