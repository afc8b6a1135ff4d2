#include "test_support.h"

#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <filesystem>

ScratchDir::ScratchDir() {
    char cwd[PATH_MAX];
    if (getcwd(cwd, sizeof cwd) != nullptr) previous_ = cwd;
    std::string tmpl = (std::filesystem::temp_directory_path() / "vantrel-XXXXXX").string();
    if (mkdtemp(tmpl.data()) != nullptr) path_ = tmpl;
    if (!path_.empty() && chdir(path_.c_str()) != 0) path_.clear();
}

ScratchDir::~ScratchDir() {
    if (!previous_.empty() && chdir(previous_.c_str()) != 0) return;
    std::error_code ec;
    if (!path_.empty()) std::filesystem::remove_all(path_, ec);
}
