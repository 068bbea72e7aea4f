#include "headless/world.h"

#include <cstring>
#include <mutex>
#include <stdexcept>
#include <unordered_map>
#include <utility>
#include <vector>

namespace quorvane::headless {

namespace {

// First byte of row 0 inside the storage.
constexpr std::size_t kHeadBytes = World::kGuardBytes;

// Freed world storage, kept for the next world of the same size. A render makes the same
// worlds frame after frame; memory fresh from the system would cost a page fault per page on
// every frame, as it would in any host that did not reuse its buffers. Shared by all sessions
// (the command renders on several threads); blocks beyond the cap go back to the system.
// Sanitizer builds keep no blocks.
class StoragePool {
  public:
    std::uint64_t* take(std::size_t words) {
#if !defined(__SANITIZE_ADDRESS__)
        {
            std::lock_guard<std::mutex> lock(mutex_);
            auto it = free_.find(words);
            if (it != free_.end() && !it->second.empty()) {
                std::uint64_t* block = it->second.back();
                it->second.pop_back();
                held_ -= words;
                return block;
            }
        }
#endif
        return new std::uint64_t[words];
    }

    void give(std::uint64_t* block, std::size_t words) {
#if !defined(__SANITIZE_ADDRESS__)
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (held_ + words <= kMaxHeldWords) {
                free_[words].push_back(block);
                held_ += words;
                return;
            }
        }
#else
        // Under AddressSanitizer every block goes back at once, so a write into a disposed
        // world is caught.
        (void)words;
#endif
        delete[] block;
    }

    ~StoragePool() {
        for (auto& [words, blocks] : free_) {
            for (std::uint64_t* block : blocks) {
                delete[] block;
            }
        }
    }

  private:
    static constexpr std::size_t kMaxHeldWords = (std::size_t{3} << 30) / 8;  // 3 GiB
    std::mutex mutex_;
    std::unordered_map<std::size_t, std::vector<std::uint64_t*>> free_;
    std::size_t held_ = 0;
};

StoragePool&
storagePool() {
    static StoragePool pool;
    return pool;
}

}  // namespace

void
World::StorageRelease::operator()(std::uint64_t* block) const {
    storagePool().give(block, words);
}

World::World(A_long width, A_long height, bool deep, Pixels pixels) {
    if (width < 0 || height < 0) {
        throw std::invalid_argument("World: negative size");
    }
    const std::size_t pixel = deep ? sizeof(PF_Pixel16) : sizeof(PF_Pixel);
    // Three pixels of padding keep rows aligned to the pixel size (8-bit rows to 4 bytes,
    // deep rows to 8) while making rowbytes clearly differ from width × pixel size.
    const std::size_t rowbytes = (static_cast<std::size_t>(width) + kRowPadPixels) * pixel;
    const std::size_t bytes =
        kHeadBytes + rowbytes * static_cast<std::size_t>(height) + kGuardBytes;
    storageBytes_ = bytes;
    const std::size_t words = (bytes + 7) / 8;
    storage_ = std::unique_ptr<std::uint64_t[], StorageRelease>(storagePool().take(words),
                                                                StorageRelease{words});
    auto* base = reinterpret_cast<std::uint8_t*>(storage_.get());
    // Pixels zero (unless the source fills them), padding and guards the marker, each byte
    // written once.
    // A zeroed world is cleared in one call, padding included (then marked): one large fill
    // streams to memory, where a fill per row would first read every line it writes.
    const std::size_t pixelRow = static_cast<std::size_t>(width) * pixel;
    std::memset(base, kMarker, kHeadBytes);
    if (pixels == Pixels::Zeroed) {
        std::memset(base + kHeadBytes, 0, rowbytes * static_cast<std::size_t>(height));
    }
    for (A_long y = 0; y < height; ++y) {
        std::uint8_t* row = base + kHeadBytes + rowbytes * static_cast<std::size_t>(y);
        std::memset(row + pixelRow, kMarker, rowbytes - pixelRow);
    }
    std::memset(base + kHeadBytes + rowbytes * static_cast<std::size_t>(height), kMarker,
                bytes - kHeadBytes - rowbytes * static_cast<std::size_t>(height));

    layer_ = PF_LayerDef{};
    layer_.world_flags = PF_WorldFlag_WRITEABLE | (deep ? PF_WorldFlag_DEEP : 0);
    layer_.data = reinterpret_cast<PF_PixelPtr>(base + kHeadBytes);
    layer_.rowbytes = static_cast<A_long>(rowbytes);
    layer_.width = width;
    layer_.height = height;
    layer_.extent_hint = PF_Rect{0, 0, width, height};
    layer_.pix_aspect_ratio = PF_RationalScale{1, 1};
}

World::World(World&& other) noexcept
    : layer_(other.layer_),
      storage_(std::move(other.storage_)),
      storageBytes_(std::exchange(other.storageBytes_, 0)) {
    other.layer_ = PF_LayerDef{};
}

World&
World::operator=(World&& other) noexcept {
    if (this != &other) {
        layer_ = std::exchange(other.layer_, PF_LayerDef{});
        storage_ = std::move(other.storage_);
        storageBytes_ = std::exchange(other.storageBytes_, 0);
    }
    return *this;
}

World::~World() = default;

PF_Pixel16*
World::row16(A_long y) {
    return reinterpret_cast<PF_Pixel16*>(reinterpret_cast<char*>(layer_.data) +
                                         static_cast<std::ptrdiff_t>(y) * layer_.rowbytes);
}

const PF_Pixel16*
World::row16(A_long y) const {
    return const_cast<World*>(this)->row16(y);
}

PF_Pixel*
World::row8(A_long y) {
    return reinterpret_cast<PF_Pixel*>(reinterpret_cast<char*>(layer_.data) +
                                       static_cast<std::ptrdiff_t>(y) * layer_.rowbytes);
}

const PF_Pixel*
World::row8(A_long y) const {
    return const_cast<World*>(this)->row8(y);
}

void
World::fill16(const PF_Pixel16& p) {
    for (A_long y = 0; y < layer_.height; ++y) {
        PF_Pixel16* row = row16(y);
        for (A_long x = 0; x < layer_.width; ++x) {
            row[x] = p;
        }
    }
}

void
World::fill8(const PF_Pixel& p) {
    for (A_long y = 0; y < layer_.height; ++y) {
        PF_Pixel* row = row8(y);
        for (A_long x = 0; x < layer_.width; ++x) {
            row[x] = p;
        }
    }
}

std::string
World::guardReport() const {
    if (!storage_) {
        return {};
    }
    const auto* base = reinterpret_cast<const std::uint8_t*>(storage_.get());
    const std::size_t pixelRow = static_cast<std::size_t>(layer_.width) * pixelBytes();
    const std::size_t rowbytes = static_cast<std::size_t>(layer_.rowbytes);
    for (std::size_t i = 0; i < kHeadBytes; ++i) {
        if (base[i] != kMarker) {
            return "guard before row 0, byte " + std::to_string(i);
        }
    }
    for (A_long y = 0; y < layer_.height; ++y) {
        const std::uint8_t* row = base + kHeadBytes + rowbytes * static_cast<std::size_t>(y);
        for (std::size_t i = pixelRow; i < rowbytes; ++i) {
            if (row[i] != kMarker) {
                return "row " + std::to_string(y) + " padding byte " + std::to_string(i - pixelRow);
            }
        }
    }
    const std::uint8_t* tail =
        base + kHeadBytes + rowbytes * static_cast<std::size_t>(layer_.height);
    for (std::size_t i = 0; i < kGuardBytes; ++i) {
        if (tail[i] != kMarker) {
            return "tail after the last row, byte " + std::to_string(i);
        }
    }
    return {};
}

bool
World::guardIntact() const {
    return guardReport().empty();
}

void
World::resetGuard() {
    if (!storage_) {
        return;
    }
    auto* base = reinterpret_cast<std::uint8_t*>(storage_.get());
    const std::size_t pixelRow = static_cast<std::size_t>(layer_.width) * pixelBytes();
    const std::size_t rowbytes = static_cast<std::size_t>(layer_.rowbytes);
    std::memset(base, kMarker, kHeadBytes);
    for (A_long y = 0; y < layer_.height; ++y) {
        std::memset(base + kHeadBytes + rowbytes * static_cast<std::size_t>(y) + pixelRow, kMarker,
                    rowbytes - pixelRow);
    }
    std::memset(base + kHeadBytes + rowbytes * static_cast<std::size_t>(layer_.height), kMarker,
                kGuardBytes);
}

bool
World::samePixels(const World& other) const {
    if (width() != other.width() || height() != other.height() || deep() != other.deep()) {
        return false;
    }
    const std::size_t pixelRow = static_cast<std::size_t>(width()) * pixelBytes();
    for (A_long y = 0; y < height(); ++y) {
        if (std::memcmp(row8(y), other.row8(y), pixelRow) != 0) {
            return false;
        }
    }
    return true;
}

World
World::clone() const {
    if (!storage_) {
        return World();
    }
    World copy(width(), height(), deep());
    const std::size_t pixelRow = static_cast<std::size_t>(width()) * pixelBytes();
    for (A_long y = 0; y < height(); ++y) {
        std::memcpy(copy.row8(y), row8(y), pixelRow);
    }
    return copy;
}

}  // namespace quorvane::headless
