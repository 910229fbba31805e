#include "pmctl/check_files.h"

#include <algorithm>
#include <map>
#include <set>

#include "pmctl/check_manifest.h"
#include "pmctl/check_texts.h"

namespace ProcMgr::Pmctl {
namespace {

struct NamedFile {
    std::string path;
    FileKind kind = FileKind::MANIFEST;
};

std::vector<NamedFile> ListAll(const std::vector<std::string>& paths, std::optional<FileKind> kind,
                               CheckContext& context) {
    std::vector<NamedFile> files;
    for (const std::string& path : paths) {
        const FileList list = ListFiles(path);
        for (const std::string& closed : list.closed) {
            context.findings.Add(
                {Severity::ERROR, closed, 0, {}, "the directory may not be read", {}});
        }
        if (list.isCut) {
            context.findings.Add({Severity::NOTE,
                                  path,
                                  0,
                                  {},
                                  "there are more files or directories than are checked",
                                  {}});
        }
        if (list.paths.empty() && list.closed.empty()) {
            context.findings.Add({Severity::ERROR,
                                  path,
                                  0,
                                  {},
                                  "there is no *.yaml, *.yml or *.cfg file in it",
                                  {}});
        }
        for (const std::string& file : list.paths) {
            files.push_back({file, kind ? *kind : RecogniseFile(file)});
        }
    }
    return files;
}

void CheckOne(const NamedFile& file, CheckContext& context) {
    switch (file.kind) {
        case FileKind::MANIFEST:
            CheckManifest(file.path, context);
            break;
        case FileKind::SETTINGS:
            CheckSettings(file.path, context);
            break;
        case FileKind::HOST_RESOURCES:
            CheckHostResources(file.path, context);
            break;
        case FileKind::HASHES:
            CheckHashFile(file.path, context);
            break;
    }
    context.findings.SortNew();
}

// The files that each manifest consists of, by real path.
class Includes {
public:
    Includes(const std::vector<NamedFile>& files, const Image& image)
        : reader_(BoardReader(image, false)) {
        for (const NamedFile& file : files) {
            if (file.kind == FileKind::MANIFEST && !filesOf_.contains(file.path)) {
                filesOf_[file.path] = PlatformHost::CheckManifests(file.path, reader_).load.files;
                for (const std::string& part : filesOf_[file.path]) {
                    ++uses_[part];
                }
            }
        }
    }

    // Whether another one of the manifests includes the file.
    bool IsIncluded(const std::string& path) {
        const std::string real = RealPathOf(path);
        return uses_[real] > (filesOf_[path].contains(real) ? 1U : 0U);
    }
    // Whether the file is part of a manifest that has been taken.
    bool IsTaken(const std::string& path) const { return taken_.contains(RealPathOf(path)); }
    void Take(const std::string& path) {
        taken_.insert(filesOf_[path].begin(), filesOf_[path].end());
    }

private:
    const PlatformHost::ManifestReader reader_;
    std::map<std::string, std::set<std::string>> filesOf_;
    std::map<std::string, size_t> uses_;
    std::set<std::string> taken_;
};

// Leaves out the manifests that are checked as parts of others. Of manifests that include each
// other the first stays.
std::vector<NamedFile> WithoutIncluded(const std::vector<NamedFile>& files, const Image& image) {
    Includes includes(files, image);
    std::vector<bool> stays(files.size());
    for (size_t i = 0; i < files.size(); ++i) {
        stays[i] = files[i].kind != FileKind::MANIFEST || !includes.IsIncluded(files[i].path);
        if (stays[i]) {
            includes.Take(files[i].path);
        }
    }
    std::vector<NamedFile> left;
    for (size_t i = 0; i < files.size(); ++i) {
        if (!stays[i] && !includes.IsTaken(files[i].path)) {
            includes.Take(files[i].path);
            stays[i] = true;
        }
        if (stays[i]) {
            left.push_back(files[i]);
        }
    }
    return left;
}

}  // namespace

size_t CheckFiles(const std::vector<std::string>& paths, std::optional<FileKind> kind,
                  CheckContext& context) {
    const std::vector<NamedFile> files = ListAll(paths, kind, context);
    context.findings.SortNew();
    const bool hasSeveral = files.size() > 1;
    for (const NamedFile& file : hasSeveral ? WithoutIncluded(files, context.image) : files) {
        CheckOne(file, context);
    }
    return files.size();
}

}  // namespace ProcMgr::Pmctl
