// A fresh directory under $TMPDIR (or /tmp), removed with its contents at
// the end of the scope. Tests never touch the default repository files.
#ifndef TESTS_SUPPORT_TEMP_DIR_H
#define TESTS_SUPPORT_TEMP_DIR_H

#include <string>

namespace testsupport {

class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir &) = delete;
  TempDir &operator=(const TempDir &) = delete;

  const std::string &path() const { return m_path; }
  std::string file(const std::string &name) const { return m_path + "/" + name; }

 private:
  std::string m_path;
};

// Whole content of a file ("" if it does not exist), and writing one.
std::string read_file(const std::string &path);
void write_file(const std::string &path, const std::string &content);
bool file_exists(const std::string &path);

}  // namespace testsupport

#endif
