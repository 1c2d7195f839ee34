#include "file_facts.h"

namespace amsvc {

// Placeholder until the digest cache and package index land.
FileFacts file_facts(const HostRoot&, const FileRef&) { return FileFacts(); }

std::vector<FileFacts> file_facts_many(const HostRoot& root, const std::vector<FileRef>& files) {
    std::vector<FileFacts> out;
    out.reserve(files.size());
    for (const FileRef& f : files) out.push_back(file_facts(root, f));
    return out;
}

}  // namespace amsvc
