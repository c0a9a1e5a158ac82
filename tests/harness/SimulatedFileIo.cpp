#include "harness/SimulatedFileIo.h"

#include <fcntl.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <memory>
#include <new>
#include <stdexcept>
#include <utility>

namespace kel_harness {

namespace {

constexpr std::size_t kPage = 4096;

Op MakeOp(OpKind kind, std::string path = {}, std::string path2 = {}) {
    Op op;
    op.kind = kind;
    op.path = std::move(path);
    op.path2 = std::move(path2);
    return op;
}

std::vector<std::uint8_t> Gather(const iovec* iov, int count, std::uint64_t limit) {
    std::vector<std::uint8_t> out;
    for (int i = 0; i < count && out.size() < limit; ++i) {
        const auto* p = static_cast<const std::uint8_t*>(iov[i].iov_base);
        const std::size_t take = std::min<std::uint64_t>(iov[i].iov_len, limit - out.size());
        out.insert(out.end(), p, p + take);
    }
    return out;
}

// The file system as the operations leave it, with what was last synced.
struct Inode {
    std::vector<std::uint8_t> current;
    std::vector<std::uint8_t> durable;
};

struct Replay {
    std::vector<std::shared_ptr<Inode>> inodes;
    std::map<std::string, std::shared_ptr<Inode>> names;
    std::map<std::string, std::shared_ptr<Inode>> durableNames;
    std::map<int, std::shared_ptr<Inode>> fds;

    static std::string Dir(const std::string& path) { return std::filesystem::path(path).parent_path().string(); }

    void Apply(const Op& op) {
        if (op.result < 0) {
            return;  // a failed operation changed nothing (a short write is recorded as what it did)
        }
        switch (op.kind) {
            case OpKind::kOpen: {
                auto& inode = names[op.path];
                if (!inode) {
                    inode = std::make_shared<Inode>();
                    inodes.push_back(inode);
                }
                fds[op.result] = inode;
                break;
            }
            case OpKind::kWrite: {
                auto& bytes = fds.at(op.fd)->current;
                if (bytes.size() < op.offset + op.data.size()) {
                    bytes.resize(op.offset + op.data.size(), 0);
                }
                std::copy(op.data.begin(), op.data.end(), bytes.begin() + static_cast<long>(op.offset));
                break;
            }
            case OpKind::kSync: {
                auto& inode = *fds.at(op.fd);
                inode.durable = inode.current;
                break;
            }
            case OpKind::kTruncate:
                fds.at(op.fd)->current.resize(op.size, 0);
                break;
            case OpKind::kClose:
                fds.erase(op.fd);
                break;
            case OpKind::kUnlink:
                names.erase(op.path);
                break;
            case OpKind::kRename: {
                const auto it = names.find(op.path);
                if (it != names.end()) {
                    auto inode = it->second;
                    names.erase(it);
                    names[op.path2] = inode;
                }
                break;
            }
            case OpKind::kSyncDir: {
                for (auto it = durableNames.begin(); it != durableNames.end();) {
                    it = Dir(it->first) == op.path ? durableNames.erase(it) : std::next(it);
                }
                for (const auto& [name, inode] : names) {
                    if (Dir(name) == op.path) {
                        durableNames[name] = inode;
                    }
                }
                break;
            }
        }
    }
};

Replay ReplayOps(const std::vector<Op>& ops, std::size_t count) {
    Replay replay;
    for (std::size_t i = 0; i < count && i < ops.size(); ++i) {
        replay.Apply(ops[i]);
    }
    return replay;
}

// One power-loss outcome of a file whose content went from `durable` (last
// synced) to `current`.
std::vector<std::uint8_t> TornContent(const Inode& inode, Entropy& e) {
    const auto& d = inode.durable;
    const auto& c = inode.current;
    const std::size_t pagesD = (d.size() + kPage - 1) / kPage;
    const std::size_t pagesC = (c.size() + kPage - 1) / kPage;
    // The size: as synced, as now, or a whole number of pages in between.
    std::size_t size = 0;
    switch (e.Below(2)) {
        case 0:
            size = d.size();
            break;
        case 1:
            size = c.size();
            break;
        default: {
            const std::size_t lo = std::min(pagesD, pagesC);
            const std::size_t hi = std::max(pagesD, pagesC);
            size = (lo + e.Below(hi - lo)) * kPage;
            break;
        }
    }
    std::vector<std::uint8_t> out(size, 0);
    for (std::size_t page = 0; page * kPage < size; ++page) {
        const std::size_t from = page * kPage;
        const std::size_t to = std::min(size, from + kPage);
        auto pageOf = [&](const std::vector<std::uint8_t>& bytes, std::size_t i) -> std::uint8_t {
            return i < bytes.size() ? bytes[i] : 0;
        };
        bool same = true;
        for (std::size_t i = from; i < to && same; ++i) {
            same = pageOf(d, i) == pageOf(c, i);
        }
        // Pages that did not change are what they were. A changed page is
        // the new version or the old one; one that lies wholly past the
        // synced size may also read as zeros (blocks allocated but never
        // written).
        const std::uint64_t choice = same ? 1 : from >= d.size() ? e.Below(2) : 1 + e.Below(1);
        for (std::size_t i = from; i < to; ++i) {
            out[i] = choice == 0 ? 0 : choice == 1 ? pageOf(c, i) : pageOf(d, i);
        }
    }
    return out;
}

}  // namespace

const char* OpKindName(OpKind kind) {
    static constexpr std::array<const char*, 8> kNames{"open",  "write",  "fdatasync", "ftruncate",
                                                       "close", "unlink", "rename",    "directory sync"};
    return kNames.at(static_cast<std::size_t>(kind));
}

SimulatedFileIo::SimulatedFileIo(std::string root, std::vector<Fault> faults)
    : root_(std::move(root)), faults_(std::move(faults)) {}

std::string SimulatedFileIo::Relative(const std::string& path) const {
    const auto rel = std::filesystem::path(path).lexically_relative(root_);
    if (rel.empty() || rel.string().rfind("..", 0) == 0) {
        throw std::logic_error("a file operation outside the simulated directory: " + path);
    }
    return rel == "." ? std::string() : rel.string();
}

const Fault* SimulatedFileIo::NextFault() {
    for (const auto& f : faults_) {
        if (f.op == ops_.size()) {
            ++fired_;
            return &f;
        }
    }
    return nullptr;
}

template <typename Call>
int SimulatedFileIo::Perform(Op op, Call call) {
    std::lock_guard lock(mutex_);
    const Fault* f = NextFault();
    const bool throwAfter = f != nullptr && f->mode == Fault::Mode::kThrowAfter;
    op.result = f != nullptr && !throwAfter ? -f->error : call(op);
    const int result = op.result;
    ops_.push_back(std::move(op));
    if (observer_) {
        observer_(ops_.back());
    }
    if (throwAfter) {
        throw std::bad_alloc();
    }
    return result;
}

int SimulatedFileIo::Open(const std::string& path, int flags, mode_t mode) {
    return Perform(MakeOp(OpKind::kOpen, Relative(path)), [&](Op& op) {
        const bool existed = std::filesystem::exists(path);
        const int fd = system_.Open(path, flags, mode);
        op.creates = !existed && fd >= 0;
        return fd;
    });
}

std::int64_t SimulatedFileIo::PWriteV(int fd, const iovec* iov, int count, std::uint64_t offset) {
    std::lock_guard lock(mutex_);
    Op op = MakeOp(OpKind::kWrite);
    op.fd = fd;
    op.offset = offset;
    std::uint64_t limit = 0;
    for (int i = 0; i < count; ++i) {
        limit += iov[i].iov_len;
    }
    std::int64_t n = 0;
    const Fault* f = NextFault();
    if (failNextWrite_ != 0) {
        n = -std::exchange(failNextWrite_, 0);
    } else if (f != nullptr && f->mode == Fault::Mode::kError) {
        n = -f->error;
    } else {
        if (f != nullptr && f->mode != Fault::Mode::kThrowAfter) {
            limit = std::max<std::uint64_t>(1, limit / 2);
            failNextWrite_ = f->mode == Fault::Mode::kShortWriteThenError ? f->error : 0;
        }
        op.data = Gather(iov, count, limit);
        const iovec one{op.data.data(), op.data.size()};
        n = system_.PWriteV(fd, &one, 1, offset);
        op.data.resize(n < 0 ? 0 : static_cast<std::size_t>(n));
    }
    op.result = static_cast<int>(std::min<std::int64_t>(n, 1 << 30));
    ops_.push_back(std::move(op));
    if (observer_) {
        observer_(ops_.back());
    }
    if (f != nullptr && f->mode == Fault::Mode::kThrowAfter) {
        throw std::bad_alloc();
    }
    return n;
}

// Durability is what the recorded operations model: syncs are not performed.
int SimulatedFileIo::FDataSync(int fd) {
    Op op = MakeOp(OpKind::kSync);
    op.fd = fd;
    return Perform(std::move(op), [](Op&) { return 0; });
}

int SimulatedFileIo::FTruncate(int fd, std::uint64_t size) {
    Op op = MakeOp(OpKind::kTruncate);
    op.fd = fd;
    op.size = size;
    return Perform(std::move(op), [&](Op&) { return system_.FTruncate(fd, size); });
}

int SimulatedFileIo::Close(int fd) {
    std::lock_guard lock(mutex_);
    Op op = MakeOp(OpKind::kClose);
    op.fd = fd;
    const Fault* f = NextFault();
    // Like Linux: the descriptor is released even when close reports an
    // error, and so the replay releases it in any case.
    op.result = system_.Close(fd);
    const int result = f != nullptr ? -f->error : op.result;
    ops_.push_back(std::move(op));
    return result;
}

int SimulatedFileIo::Unlink(const std::string& path) {
    return Perform(MakeOp(OpKind::kUnlink, Relative(path)), [&](Op&) { return system_.Unlink(path); });
}

int SimulatedFileIo::Rename(const std::string& from, const std::string& to, bool replace) {
    Op op = MakeOp(OpKind::kRename, Relative(from), Relative(to));
    op.replace = replace;
    return Perform(std::move(op), [&](Op&) { return system_.Rename(from, to, replace); });
}

int SimulatedFileIo::SyncDirectory(const std::string& dir) {
    return Perform(MakeOp(OpKind::kSyncDir, Relative(dir.empty() ? root_ : dir)), [](Op&) { return 0; });
}

void SimulatedFileIo::OnEachOperation(std::function<void(const Op&)> observer) {
    std::lock_guard lock(mutex_);
    observer_ = std::move(observer);
}

std::size_t SimulatedFileIo::OpCount() const {
    std::lock_guard lock(mutex_);
    return ops_.size();
}

std::vector<Op> SimulatedFileIo::Ops() const {
    std::lock_guard lock(mutex_);
    return ops_;
}

std::size_t SimulatedFileIo::FaultsFired() const {
    std::lock_guard lock(mutex_);
    return fired_;
}

Files AfterProcessCrash(const std::vector<Op>& ops, std::size_t count) {
    const Replay replay = ReplayOps(ops, count);
    Files files;
    for (const auto& [name, inode] : replay.names) {
        files[name] = inode->current;
    }
    return files;
}

Files AfterPowerLoss(const std::vector<Op>& ops, std::size_t count, Entropy& entropy) {
    const Replay replay = ReplayOps(ops, count);
    std::map<std::string, std::shared_ptr<Inode>> names = replay.durableNames;
    for (const auto& [name, inode] : replay.names) {
        if (entropy.Chance(2)) {
            names[name] = inode;
        }
    }
    for (auto it = names.begin(); it != names.end();) {
        // An entry removed since the directory was synced may be gone.
        it = replay.names.count(it->first) == 0 && entropy.Chance(2) ? names.erase(it) : std::next(it);
    }
    Files files;
    std::map<const Inode*, std::vector<std::uint8_t>> contents;  // one outcome per file, whatever its names
    for (const auto& [name, inode] : names) {
        auto [it, added] = contents.try_emplace(inode.get());
        if (added) {
            it->second = TornContent(*inode, entropy);
        }
        files[name] = it->second;
    }
    return files;
}

long LastSuccessfulSync(const std::vector<Op>& ops, std::size_t count) {
    for (std::size_t i = std::min(count, ops.size()); i > 0; --i) {
        if (ops[i - 1].kind == OpKind::kSync && ops[i - 1].result == 0) {
            return static_cast<long>(i - 1);
        }
    }
    return -1;
}

void Materialize(const Files& files, const std::string& dir) {
    for (const auto& [name, bytes] : files) {
        const auto path = std::filesystem::path(dir) / name;
        std::filesystem::create_directories(path.parent_path());
        std::ofstream out(path, std::ios::binary | std::ios::trunc);
        out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
        if (!out) {
            throw std::runtime_error("cannot write " + path.string());
        }
    }
}

}  // namespace kel_harness
