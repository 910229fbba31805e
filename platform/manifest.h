// The manifest and dependency library: it parses application manifests from YAML, builds the
// dependency graph of the services, and reads other YAML files. The daemon calls the functions that
// are declared here; a platform library defines them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace ProcMgr {

// The library's own storage of one manifest; complete only inside the library.
struct ManifestData;

// Of manifest_output.h.
struct OutputConfig;

// The list of the file in which the manifest was an entry.
enum class ManifestList { SERVICES, APPLICATIONS };

// The description of one application or base service. Copies share the same immutable data, so a
// copy is cheap, and any thread may read it.
class ApplicationManifest {
public:
    explicit ApplicationManifest(std::shared_ptr<const ManifestData> data);

    ManifestList GetManifestList() const;

    std::string GetAppName() const;
    // Path of the file that holds the entry.
    std::string GetCfgPath() const;
    uint32_t GetUid() const;
    uint32_t GetGid() const;
    // Core numbers; empty when the manifest gives none.
    std::vector<uint32_t> GetCoreAffinity() const;
    std::string GetResGroupName() const;
    std::string GetBlkioGroupName() const;
    std::string GetCpuset() const;
    // Map of controller to cgroup.
    std::map<std::string, std::string> GetCGroupPath() const;
    std::string GetBinPath() const;
    std::vector<std::string> GetArguments() const;
    std::map<std::string, std::string> GetEnvArgv() const;
    // Milliseconds that the process has after SIGTERM.
    uint32_t GetTermTimeOut() const;
    std::string GetSecurityCon() const;
    // "on-failure", "on-forever", "on-until-succeed" or "no".
    std::string GetRestart() const;
    uint32_t GetNodeType() const;
    uint32_t GetNumaType() const;
    // Lower starts first; -1: not a priority application.
    int32_t GetStartupPriority() const;
    bool GetIsDelayCoreAffinity() const;
    bool GetIsDynamicPara() const;
    bool GetIsForceTerm() const;
    bool GetIsReporting() const;
    bool GetHeartBeatSwitch() const;
    int32_t GetVfId() const;
    // The configured vf_id when it is a pattern, else empty.
    std::string GetVfIdPattern() const;
    int32_t GetNice() const;
    // Pairs of group name and access.
    std::vector<std::pair<std::string, std::string>> GetSharepoolGroups() const;
    std::set<std::string> GetDependList() const;
    std::string GetStartupEntryPath() const;
    std::string GetSetRtPrio() const;
    std::string GetSetRtType() const;
    // Pairs that a start-up configuration request must contain for this application to be loaded.
    std::map<std::string, std::string> GetMatchData() const;

private:
    friend OutputConfig GetManifestOutput(const ApplicationManifest& manifest);

    std::shared_ptr<const ManifestData> data_;
};

// A graph of vertices that wait for other vertices. Not thread-safe.
class DependGraph {
public:
    bool IsEmpty() const;
    // Names of all vertices that wait for nothing.
    std::vector<std::string> GetNoDependVertices() const;
    // Removes a vertex, so that no other vertex waits for it any more. An unknown name changes
    // nothing.
    void Pop(const std::string& name);

    // Adds the vertex `name`, which waits for each of `depends`. Called by the library that builds
    // the graph.
    void Add(const std::string& name, const std::set<std::string>& depends);

private:
    std::map<std::string, std::set<std::string>> waitsFor_;
    std::map<std::string, std::set<std::string>> releases_;
    std::set<std::string> free_;  // the vertices that wait for nothing
};

// Parses manifests and keeps them for the graph. Not thread-safe.
class ParseAndDepend {
public:
    // Appends one manifest for each entry of the file at `path`, included files first. On failure
    // logs one error that names file, line and key, and leaves `manifests` unchanged. `paramType`
    // is 0; the paths of the files that were read are added to `scratch`. Returns 0 on success,
    // non-zero otherwise.
    int ParseYaml(int paramType, const std::string& path,
                  std::vector<ApplicationManifest>& manifests, std::set<std::string>& scratch);

    // Builds the graph of `names` from the manifests parsed before, with an edge for each
    // dependency that is also among `names`. Logs each cycle once with the names on it. Returns 0
    // on success.
    int GetStartGraph(const std::vector<std::string>& names, DependGraph& graph);

    // True when a configured value is a pattern, "match(EXPR)".
    static bool IsDynamicPara(const std::string& value);
    // True when `value` as a whole satisfies the configured `pattern`.
    static bool IsDynamicParaMatch(const std::string& pattern, const std::string& value);

private:
    std::vector<ApplicationManifest> parsed_;
};

// A node of a YAML file that is not a manifest. Not thread-safe.
class KvsTypeYaml {
public:
    KvsTypeYaml();
    ~KvsTypeYaml();
    KvsTypeYaml(const KvsTypeYaml&) = delete;
    KvsTypeYaml& operator=(const KvsTypeYaml&) = delete;

    // Makes this node the top of the file at `path`. Returns false, after an error in the log, when
    // the file cannot be read or parsed.
    bool InitYamlNode(const std::string& path);
    // Makes `child` the value under `key`. Returns false when this node is not a mapping or has no
    // such key.
    bool GetSubKvs(const std::string& key, KvsTypeYaml& child) const;
    // The node as a boolean; false when the node is not a boolean.
    bool GetBool() const;
    // The node as text; empty when the node is not a scalar.
    std::string GetString() const;
    // Number of elements; 0 when the node is not a sequence.
    size_t GetSize() const;
    // Makes `child` the element at `index`. Returns false when there is no such element.
    bool GetElement(size_t index, KvsTypeYaml& child) const;

private:
    struct Node;
    std::unique_ptr<Node> node_;
};

}  // namespace ProcMgr
