#include "cli/sequence.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <set>
#include <system_error>

#include "cli/errors.h"

namespace fs = std::filesystem;

namespace quorvane::cli {

namespace {

// Largest frame number accepted: keeps every sum and product of frame numbers far from
// overflow and every written number within 9 digits.
constexpr long kMaxFrame = 999999999;
// Longest frame list accepted (a typo such as 1-100000000 should not exhaust memory).
constexpr std::size_t kMaxFrameCount = 1000000;

struct Field {
    std::size_t begin = 0;
    std::size_t end = 0;
    int padding = 0;
};

// Finds the frame fields in the file-name part of `text` (from `nameStart` on).
std::vector<Field>
findFields(const std::string& text, std::size_t nameStart) {
    std::vector<Field> fields;
    std::size_t i = nameStart;
    while (i < text.size()) {
        const char c = text[i];
        if (c == '#' || c == '@') {
            std::size_t j = i;
            while (j < text.size() && text[j] == c) {
                ++j;
            }
            fields.push_back({i, j, static_cast<int>(j - i)});
            i = j;
        } else if (c == '%') {
            std::size_t j = i + 1;
            while (j < text.size() && std::isdigit(static_cast<unsigned char>(text[j]))) {
                ++j;
            }
            if (j < text.size() && text[j] == 'd') {
                const std::string width = text.substr(i + 1, j - i - 1);
                if (!width.empty() && width[0] != '0') {
                    throw usageError(text + ": write a padded frame field as %0" + width +
                                     "d (or #, @ per digit)");
                }
                const int padding = width.empty() ? 0 : std::stoi(width);
                if (padding > 9) {
                    throw usageError(text + ": a frame field pads to at most 9 digits");
                }
                fields.push_back({i, j + 1, padding});
                i = j + 1;
            } else {
                ++i;
            }
        } else {
            ++i;
        }
    }
    return fields;
}

bool
allDigits(const std::string& s) {
    return !s.empty() &&
           std::all_of(s.begin(), s.end(), [](char c) { return c >= '0' && c <= '9'; });
}

long
parseFrameNumber(const std::string& text, const std::string& whole) {
    if (!allDigits(text) || text.size() > 9) {
        throw usageError("--frames " + whole + ": \"" + text +
                         "\" is not a frame number (0 to 999999999)");
    }
    return std::stol(text);
}

}  // namespace

FramePattern::FramePattern(std::string text) : text_(std::move(text)) {
    const std::size_t slash = text_.find_last_of('/');
    const std::size_t nameStart = slash == std::string::npos ? 0 : slash + 1;
    const std::vector<Field> fields = findFields(text_, nameStart);
    if (fields.size() > 1) {
        throw usageError(text_ + ": a file name can hold only one frame field");
    }
    if (fields.empty()) {
        return;
    }
    sequence_ = true;
    prefix_ = text_.substr(0, fields[0].begin);
    suffix_ = text_.substr(fields[0].end);
    padding_ = fields[0].padding;
}

std::string
FramePattern::pathFor(long frame) const {
    if (!sequence_) {
        return text_;
    }
    std::string digits = std::to_string(frame);
    if (static_cast<int>(digits.size()) < padding_) {
        digits.insert(0, static_cast<std::size_t>(padding_) - digits.size(), '0');
    }
    return prefix_ + digits + suffix_;
}

std::string
FramePattern::folder() const {
    const fs::path parent = fs::path(sequence_ ? prefix_ + "0" : text_).parent_path();
    return parent.empty() ? std::string(".") : parent.string();
}

bool
FramePattern::matchFileName(const std::string& fileName, long* frame) const {
    if (!sequence_) {
        return false;
    }
    const std::string namePrefix = fs::path(prefix_ + "0").filename().string();
    const std::string head = namePrefix.substr(0, namePrefix.size() - 1);
    if (fileName.size() <= head.size() + suffix_.size() ||
        fileName.compare(0, head.size(), head) != 0 ||
        fileName.compare(fileName.size() - suffix_.size(), suffix_.size(), suffix_) != 0) {
        return false;
    }
    const std::string digits =
        fileName.substr(head.size(), fileName.size() - head.size() - suffix_.size());
    if (!allDigits(digits) || digits.size() > 9) {
        return false;
    }
    const long number = std::stol(digits);
    // Only the spelling pathFor() writes: plate.0001.exr, not plate.001.exr or plate.00001.exr.
    if (pathFor(number) != prefix_ + digits + suffix_) {
        return false;
    }
    *frame = number;
    return true;
}

std::vector<long>
FramePattern::framesOnDisk() const {
    std::error_code ec;
    if (!sequence_) {
        return fs::exists(text_, ec) ? std::vector<long>{0} : std::vector<long>{};
    }
    std::vector<long> frames;
    for (const fs::directory_entry& entry : fs::directory_iterator(folder(), ec)) {
        long frame = 0;
        if (matchFileName(entry.path().filename().string(), &frame)) {
            frames.push_back(frame);
        }
    }
    std::sort(frames.begin(), frames.end());
    return frames;
}

std::vector<long>
parseFrameList(const std::string& text) {
    std::vector<long> frames;
    std::set<long> seen;
    std::size_t start = 0;
    while (start <= text.size()) {
        std::size_t comma = text.find(',', start);
        if (comma == std::string::npos) {
            comma = text.size();
        }
        const std::string item = text.substr(start, comma - start);
        long first = 0;
        long last = 0;
        long step = 1;
        const std::size_t dash = item.find('-');
        if (dash == std::string::npos) {
            first = last = parseFrameNumber(item, text);
        } else {
            first = parseFrameNumber(item.substr(0, dash), text);
            std::string rest = item.substr(dash + 1);
            const std::size_t x = rest.find('x');
            if (x != std::string::npos) {
                step = parseFrameNumber(rest.substr(x + 1), text);
                rest = rest.substr(0, x);
                if (step == 0) {
                    throw usageError("--frames " + text + ": the step must be at least 1");
                }
            }
            last = parseFrameNumber(rest, text);
            if (last < first) {
                throw usageError("--frames " + text + ": the range " + item +
                                 " ends before it starts");
            }
        }
        for (long f = first; f <= last && f <= kMaxFrame; f += step) {
            if (frames.size() >= kMaxFrameCount) {
                throw usageError("--frames " + text + ": more than " +
                                 std::to_string(kMaxFrameCount) + " frames");
            }
            if (seen.insert(f).second) {
                frames.push_back(f);
            }
        }
        start = comma + 1;
    }
    return frames;
}

}  // namespace quorvane::cli
