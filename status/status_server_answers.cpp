// The answers of the status endpoint: when a document is made, and who gets it.
#include <algorithm>
#include <chrono>
#include <exception>
#include <utility>

#include "main/common/log.h"
#include "status/document.h"
#include "status/status_server.h"

namespace ProcMgr::Status {
namespace {

// A whole document is given to every client that asks within this time.
constexpr std::chrono::milliseconds FRESH{20};
// After a document the thread makes none for this many times the time that it took, so clients that
// ask without pause cost a quarter of one core at most.
constexpr int DOCUMENT_PAUSE_FACTOR = 3;
constexpr std::chrono::seconds DOCUMENT_PAUSE_MAX{1};
// The number of documents that are kept for clients at a time.
constexpr size_t DOCUMENTS_MAX = 4;

}  // namespace

void StatusServer::AnswerAll() {
    for (const auto& client : clients_) {
        if (client->GetState() == Client::State::ASKING && !TryAnswer(*client)) {
            return;
        }
    }
}

bool StatusServer::TryAnswer(Client& client) {
    const Request& request = client.GetRequest();
    const bool isWhole = request.kind == Request::Kind::STATUS && request.name.empty();
    const SteadyTime now = std::chrono::steady_clock::now();
    Document document = isWhole && now < sharedUntil_ ? shared_ : nullptr;
    try {
        if (request.kind == Request::Kind::UNKNOWN) {
            document = std::make_shared<const std::string>(WriteError());
        } else if (document == nullptr) {
            document = Make(request, now);
        }
    } catch (const std::exception& error) {
        ProcMgrLog(LOG_ERR, "PROCMGR : a client of the status endpoint gets no answer, %s",
                   error.what());
        client.Drop();
        return true;
    }
    if (document != nullptr) {
        ++requests_;
        client.Answer(std::move(document), std::chrono::steady_clock::now());
    }
    return document != nullptr || client.IsOver();
}

Document StatusServer::Make(const Request& request, SteadyTime now) {
    if (now < nextMake_ || !MayMake()) {
        return nullptr;
    }
    auto document = std::make_shared<const std::string>(answerer_(request));
    const SteadyTime end = std::chrono::steady_clock::now();
    nextMake_ = end + std::min<SteadyTime::duration>(DOCUMENT_PAUSE_FACTOR * (end - now),
                                                     DOCUMENT_PAUSE_MAX);
    if (request.kind == Request::Kind::STATUS && request.name.empty()) {
        shared_ = document;
        sharedUntil_ = end + FRESH;
    }
    return document;
}

// A client that does not read keeps its document.
bool StatusServer::MayMake() const {
    size_t count = 0;
    for (auto client = clients_.begin(); client != clients_.end(); ++client) {
        const Document& document = (*client)->GetDocument();
        const bool isNew = std::none_of(clients_.begin(), client, [&](const auto& earlier) {
            return earlier->IsReading(document);
        });
        count += (*client)->IsReading(document) && isNew ? 1 : 0;
    }
    return count < DOCUMENTS_MAX;
}

}  // namespace ProcMgr::Status
