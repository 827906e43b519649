#include "scanner/scenario.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <map>

#include "closed/ftrscan.h"
#include "scanner/grey_image.h"

namespace kr7sim {
namespace scanner {
namespace {

constexpr double kMaxSeconds = 7 * 24 * 3600.0;  // a week of frames fits easily in 32 bits

std::string Lower(std::string s) {
    for (char& c : s)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

bool EndsWith(const std::string& s, const char* suffix) {
    const size_t n = std::strlen(suffix);
    return s.size() >= n && s.compare(s.size() - n, n, suffix) == 0;
}

bool ParseNumber(const std::string& text, double& value) {
    if (text.empty())
        return false;
    char* end = nullptr;
    value = std::strtod(text.c_str(), &end);
    return end == text.c_str() + text.size() && std::isfinite(value);
}

bool ParseUnsigned(const std::string& text, uint64_t& value) {
    if (text.empty() || !std::isdigit(static_cast<unsigned char>(text[0])))
        return false;
    char* end = nullptr;
    errno = 0;
    value = std::strtoull(text.c_str(), &end, 10);
    return errno == 0 && end == text.c_str() + text.size();
}

// One step of the script, split into words: the keyword, positional words
// and key=value options.
struct Step {
    std::string keyword;
    std::vector<std::string> positional;
    std::map<std::string, std::string> options;
};

// The whole number of frames nearest to a time.
uint32_t Seconds(double seconds) {
    return static_cast<uint32_t>(std::lround(seconds / kFramePeriodSeconds));
}

class Compiler {
public:
    Compiler(uint64_t seed, std::string base_dir) : seed_(seed), base_dir_(std::move(base_dir)) {}

    bool Run(const std::string& text, std::vector<Segment>& segments, Segment& tail,
             std::vector<FingerSpec>& fingers, std::vector<ReplaySpec>& replays, uint32_t& repeats,
             std::string& error);

private:
    // One row of the table of steps (kSteps). Compile() finds the row by the
    // keyword, checks the options and the number of positional words against
    // it and calls the row's member. A step that lasts reads its duration
    // through Span(), from the positional word the row names, after its own
    // checks, so that a line with several faults is reported by the first of
    // them in the order: options, finger options or frames, then duration.
    struct StepRule {
        const char* keyword;
        std::vector<std::string> options;  // keys the step accepts
        size_t positional;                 // at most this many positional words
        int duration;                      // which of them is the duration, -1 = none
        double seconds;  // the duration when the script gives none (place, roll and
                         // replay work theirs out from the finger or the recording)
        bool (Compiler::*compile)(const Step&, const StepRule&, std::string&);
    };
    static const StepRule kSteps[];

    bool Compile(const Step& step, std::string& error);
    bool Allow(const Step& step, const StepRule& rule, std::string& error) const;
    bool FingerOptions(const Step& step, FingerSpec& finger, std::string& error) const;
    // Adds the segment `s` for the step's duration (`fallback` frames, or
    // the row's default, when the script gives none), with the finger that
    // is on the platen.
    bool Span(const Step& step, const StepRule& rule, uint32_t fallback, Segment s,
              std::string& error);
    bool Span(const Step& step, const StepRule& rule, Segment s, std::string& error) {
        return Span(step, rule, Seconds(rule.seconds), s, error);
    }
    bool Touch(const Step& step, const StepRule& rule, const FingerSpec& finger, uint32_t fallback,
               std::string& error);

    // The steps, one member per row of kSteps.
    bool Seed(const Step& step, const StepRule& rule, std::string& error);
    bool Empty(const Step& step, const StepRule& rule, std::string& error);
    bool Hold(const Step& step, const StepRule& rule, std::string& error);
    bool Place(const Step& step, const StepRule& rule, std::string& error);
    bool Fake(const Step& step, const StepRule& rule, std::string& error);
    bool Roll(const Step& step, const StepRule& rule, std::string& error);
    bool Move(const Step& step, const StepRule& rule, std::string& error);
    bool EmptyFrame(const Step& step, const StepRule& rule, std::string& error);
    bool Unplug(const Step& step, const StepRule& rule, std::string& error);
    bool Dirt(const Step& step, const StepRule& rule, std::string& error);
    bool Replay(const Step& step, const StepRule& rule, std::string& error);
    bool Repeat(const Step& step, const StepRule& rule, std::string& error);

    void Lift() {
        if (current_ >= 0)
            fingers_[size_t(current_)].params.lift_frame = now_;
        current_ = -1;
    }
    void Add(uint32_t frames, Segment s) {
        if (frames == 0)
            return;
        if (frames > UINT32_MAX - now_) {  // frames of the cycle are counted in 32 bits
            too_long_ = true;
            return;
        }
        s.start = now_;
        s.end = now_ + frames;
        s.dirt = dirt_;
        s.line = line_;
        now_ = s.end;
        segments_.push_back(s);
    }
    int NewFinger(FingerSpec finger) {
        finger.params.touch_frame = now_;
        finger.params.impression = static_cast<uint32_t>(fingers_.size());
        fingers_.push_back(finger);
        return int(fingers_.size()) - 1;
    }

    uint64_t seed_;
    std::string base_dir_;
    std::vector<Segment> segments_;
    std::vector<FingerSpec> fingers_;
    std::vector<ReplaySpec> replays_;
    uint32_t now_ = 0;
    int current_ = -1;
    int dirt_ = -1;
    int line_ = 0;
    bool repeat_seen_ = false;
    bool too_long_ = false;
    uint32_t repeats_ = 1;
};

const std::vector<std::string> kFingerOptions = {"finger", "pressure", "skin",
                                                 "press",  "pose",     "variation"};
const std::vector<std::string> kRollOptions = {"finger", "pressure", "skin", "press",
                                               "over",   "pose",     "from"};

// Aliases (wait, movable) share the member of the step they stand for.
// clang-format off
const Compiler::StepRule Compiler::kSteps[] = {
    // keyword      options         positional  duration  seconds  compile
    {"empty",       {},             1,          0,        1.0,     &Compiler::Empty},
    {"lift",        {},             1,          0,        0.0,     &Compiler::Empty},
    {"hold",        {},             1,          0,        1.0,     &Compiler::Hold},
    {"wait",        {},             1,          0,        1.0,     &Compiler::Hold},
    {"place",       kFingerOptions, 1,          0,        0.0,     &Compiler::Place},
    {"fake",        kFingerOptions, 1,          0,        1.0,     &Compiler::Fake},
    {"roll",        kRollOptions,   0,          -1,       0.0,     &Compiler::Roll},
    {"move",        {},             1,          0,        0.5,     &Compiler::Move},
    {"movable",     {},             1,          0,        0.5,     &Compiler::Move},
    {"emptyframe",  {},             1,          0,        0.5,     &Compiler::EmptyFrame},
    {"unplug",      {},             1,          0,        2.0,     &Compiler::Unplug},
    {"dirt",        {},             1,          -1,       0.0,     &Compiler::Dirt},
    {"replay",      {"as"},         2,          1,        0.0,     &Compiler::Replay},
    {"seed",        {},             1,          -1,       0.0,     &Compiler::Seed},
    {"repeat",      {},             1,          -1,       0.0,     &Compiler::Repeat},
};
// clang-format on

bool Compiler::Compile(const Step& step, std::string& error) {
    if (repeat_seen_) {
        error = "'repeat' must be the last step";
        return false;
    }
    const StepRule* const rule =
        std::find_if(std::begin(kSteps), std::end(kSteps),
                     [&](const StepRule& r) { return step.keyword == r.keyword; });
    if (rule == std::end(kSteps)) {
        error = "unknown step '" + step.keyword + "'";
        return false;
    }
    return Allow(step, *rule, error) && (this->*rule->compile)(step, *rule, error);
}

bool Compiler::Allow(const Step& step, const StepRule& rule, std::string& error) const {
    for (const auto& option : step.options) {
        if (std::find(rule.options.begin(), rule.options.end(), option.first) ==
            rule.options.end()) {
            error = "unknown option '" + option.first + "' for '" + step.keyword + "'";
            return false;
        }
    }
    if (step.positional.size() > rule.positional) {
        error =
            "unexpected '" + step.positional[rule.positional] + "' after '" + step.keyword + "'";
        return false;
    }
    return true;
}

bool Compiler::Span(const Step& step, const StepRule& rule, uint32_t fallback, Segment s,
                    std::string& error) {
    uint32_t frames = fallback;
    if (rule.duration >= 0 && size_t(rule.duration) < step.positional.size()) {
        const std::string& word = step.positional[size_t(rule.duration)];
        if (!ParseDuration(word, frames)) {
            error = "bad duration '" + word + "' (use e.g. 2s, 250ms or 12f)";
            return false;
        }
    }
    s.finger = current_;
    Add(frames, s);
    return true;
}

bool Compiler::FingerOptions(const Step& step, FingerSpec& finger, std::string& error) const {
    ImpressionParams& p = finger.params;
    p.finger_seed = seed_;
    for (const auto& [key, value] : step.options) {
        bool ok = true;
        if (key == "finger") {
            ok = ParseUnsigned(value, p.finger_seed);
        } else if (key == "pressure") {
            double pressure = 0;
            ok = ParseNumber(value, pressure) && pressure >= 0.1 && pressure <= 3.0;
            p.pressure = pressure;
        } else if (key == "skin") {
            const std::string v = Lower(value);
            ok = v == "dry" || v == "normal" || v == "wet";
            p.skin = v == "dry" ? Skin::Dry : v == "wet" ? Skin::Wet : Skin::Normal;
        } else if (key == "press") {
            ok = ParseDuration(value, p.press_frames);
        } else if (key == "over") {
            ok = ParseDuration(value, p.roll_frames) && p.roll_frames > 0;
        } else if (key == "pose") {
            const std::string v = Lower(value);
            ok = v == "random" || v == "centred" || v == "centered";
            p.random_pose = v == "random";
        } else if (key == "variation") {
            const std::string v = Lower(value);
            ok = v == "natural" || v == "easy";
            p.variation = v == "easy" ? Variation::Easy : Variation::Natural;
        } else if (key == "from") {
            const std::string v = Lower(value);
            ok = v == "left" || v == "right";
            p.roll_from = v == "right" ? RollDirection::FromRight : RollDirection::FromLeft;
        }
        if (!ok) {
            error = "bad value '" + value + "' for option '" + key + "'";
            return false;
        }
    }
    return true;
}

// A new finger touches the platen for the step's duration. A fake or rolled
// finger leaves at the end of it; a placed one stays until a step lifts it.
bool Compiler::Touch(const Step& step, const StepRule& rule, const FingerSpec& finger,
                     uint32_t fallback, std::string& error) {
    Lift();
    current_ = NewFinger(finger);
    Segment s;
    s.step = rule.keyword;
    if (!Span(step, rule, fallback, s, error))
        return false;
    if (finger.fake || finger.params.kind == ImpressionKind::Rolled)
        Lift();
    return true;
}

bool Compiler::Seed(const Step& step, const StepRule&, std::string& error) {
    if (step.positional.size() != 1 || !ParseUnsigned(step.positional[0], seed_)) {
        error = "'seed' needs a number";
        return false;
    }
    return true;
}

// empty, lift: the finger leaves, the platen stays empty.
bool Compiler::Empty(const Step& step, const StepRule& rule, std::string& error) {
    Lift();
    Segment s;
    s.step = rule.keyword;
    return Span(step, rule, s, error);
}

bool Compiler::Hold(const Step& step, const StepRule& rule, std::string& error) {
    Segment s;
    s.step = "hold";
    return Span(step, rule, s, error);
}

bool Compiler::Place(const Step& step, const StepRule& rule, std::string& error) {
    FingerSpec finger;
    return FingerOptions(step, finger, error) &&
           Touch(step, rule, finger, finger.params.press_frames, error);
}

bool Compiler::Fake(const Step& step, const StepRule& rule, std::string& error) {
    FingerSpec finger;
    finger.fake = true;
    return FingerOptions(step, finger, error) &&
           Touch(step, rule, finger, Seconds(rule.seconds), error);
}

bool Compiler::Roll(const Step& step, const StepRule& rule, std::string& error) {
    FingerSpec finger;
    finger.params.kind = ImpressionKind::Rolled;
    finger.params.roll_from = RollDirection::FromLeft;  // unless `from` says otherwise
    return FingerOptions(step, finger, error) &&
           Touch(step, rule, finger, finger.params.press_frames + finger.params.roll_frames + 1,
                 error);
}

bool Compiler::Move(const Step& step, const StepRule& rule, std::string& error) {
    if (current_ < 0) {  // a moving finger needs a finger
        FingerSpec finger;
        finger.params.finger_seed = seed_;
        current_ = NewFinger(finger);
    }
    Segment s;
    s.step = "move";
    s.capture_error = FTR_ERROR_MOVABLE_FINGER;
    return Span(step, rule, s, error);
}

bool Compiler::EmptyFrame(const Step& step, const StepRule& rule, std::string& error) {
    Segment s;
    s.step = "emptyframe";
    s.capture_error = FTR_ERROR_EMPTY_FRAME;
    return Span(step, rule, s, error);
}

bool Compiler::Unplug(const Step& step, const StepRule& rule, std::string& error) {
    Segment s;
    s.step = "unplug";
    s.unplugged = true;
    return Span(step, rule, s, error);
}

bool Compiler::Dirt(const Step& step, const StepRule&, std::string& error) {
    uint64_t spots = 0;
    if (step.positional.size() != 1 || !ParseUnsigned(step.positional[0], spots) || spots > 50) {
        error = "'dirt' needs a number of spots from 0 to 50";
        return false;
    }
    dirt_ = int(spots);
    return true;
}

bool Compiler::Replay(const Step& step, const StepRule& rule, std::string& error) {
    if (step.positional.empty()) {
        error = "'replay' needs a folder";
        return false;
    }
    ReplaySpec replay;
    replay.folder = step.positional[0];
    if (!replay.folder.empty() && replay.folder[0] != '/' && !base_dir_.empty())
        replay.folder = base_dir_ + "/" + replay.folder;
    if (auto it = step.options.find("as"); it != step.options.end()) {
        const std::string v = Lower(it->second);
        if (v != "raw" && v != "platen") {
            error = "bad value '" + it->second + "' for option 'as' (platen or raw)";
            return false;
        }
        replay.raw = v == "raw";
    }
    if (!LoadFrameFolder(replay.folder, replay.frames, error))
        return false;
    const uint32_t one_pass = uint32_t(replay.frames.size());
    Lift();
    replays_.push_back(std::move(replay));
    Segment s;
    s.step = "replay";
    s.replay = int(replays_.size()) - 1;
    return Span(step, rule, one_pass, s, error);
}

bool Compiler::Repeat(const Step& step, const StepRule&, std::string& error) {
    uint64_t count = 0;
    if (!step.positional.empty() &&
        (!ParseUnsigned(step.positional[0], count) || count < 1 || count > 1000000)) {
        error = "'repeat' takes a count of at least 1 (none = forever)";
        return false;
    }
    repeat_seen_ = true;
    repeats_ = uint32_t(count);
    return true;
}

bool Compiler::Run(const std::string& text, std::vector<Segment>& segments, Segment& tail,
                   std::vector<FingerSpec>& fingers, std::vector<ReplaySpec>& replays,
                   uint32_t& repeats, std::string& error) {
    size_t pos = 0;
    int line = 1;
    while (pos <= text.size()) {
        size_t end = text.find_first_of(";\n", pos);
        if (end == std::string::npos)
            end = text.size();
        std::string piece = text.substr(pos, end - pos);
        if (const size_t hash = piece.find('#'); hash != std::string::npos)
            piece.erase(hash);
        line_ = line;
        Step step;
        size_t p = 0;
        while (true) {
            while (p < piece.size() && std::isspace(static_cast<unsigned char>(piece[p])))
                ++p;
            if (p >= piece.size())
                break;
            size_t q = p;
            while (q < piece.size() && !std::isspace(static_cast<unsigned char>(piece[q])))
                ++q;
            const std::string word = piece.substr(p, q - p);
            p = q;
            const size_t eq = word.find('=');
            if (step.keyword.empty()) {
                step.keyword = Lower(word);
            } else if (eq != std::string::npos && eq > 0) {
                step.options[Lower(word.substr(0, eq))] = word.substr(eq + 1);
            } else {
                step.positional.push_back(word);
            }
        }
        if (!step.keyword.empty() && !Compile(step, error)) {
            error = std::to_string(line) + ": " + error;
            return false;
        }
        if (too_long_) {
            error = std::to_string(line) + ": the script runs past 4294967295 frames";
            return false;
        }
        if (end < text.size() && text[end] == '\n')
            ++line;
        pos = end + 1;
    }
    if (now_ == 0 && repeats_ != 1)
        repeats_ = 1;  // nothing to repeat
    // What stays after the end: a finger that was never lifted, the dirt.
    tail = Segment{};
    tail.start = tail.end = now_;
    tail.finger = current_;
    tail.dirt = dirt_;
    tail.step = "end";
    segments.swap(segments_);
    fingers.swap(fingers_);
    replays.swap(replays_);
    repeats = repeats_;
    return true;
}

}  // namespace

bool ParseDuration(const std::string& text, uint32_t& frames) {
    std::string t = Lower(text);
    double scale = 1.0 / kFramePeriodSeconds;  // seconds
    if (EndsWith(t, "ms")) {
        scale = 0.001 / kFramePeriodSeconds;
        t.resize(t.size() - 2);
    } else if (EndsWith(t, "s")) {
        t.resize(t.size() - 1);
    } else if (EndsWith(t, "f")) {
        scale = 1.0;
        t.resize(t.size() - 1);
    }
    double value = 0;
    if (!ParseNumber(t, value) || value < 0 || value * scale > kMaxSeconds / kFramePeriodSeconds)
        return false;
    frames = static_cast<uint32_t>(std::lround(value * scale));
    return true;
}

const char* Scenario::DefaultScript() {
    return "empty 1s\n"
           "place 0.3s\n"
           "hold 2s\n"
           "lift 1s\n"
           "repeat\n";
}

std::shared_ptr<const Scenario> Scenario::Parse(const std::string& text, const std::string& source,
                                                uint64_t default_seed, std::string& error) {
    std::string base_dir;
    if (const size_t slash = source.rfind('/'); slash != std::string::npos)
        base_dir = source.substr(0, slash);
    auto scenario = std::shared_ptr<Scenario>(new Scenario);
    Compiler compiler(default_seed, base_dir);
    if (!compiler.Run(text, scenario->segments_, scenario->tail_, scenario->fingers_,
                      scenario->replays_, scenario->repeats_, error)) {
        error = source + ":" + error;
        return nullptr;
    }
    scenario->cycle_ = scenario->segments_.empty() ? 0 : scenario->segments_.back().end;
    for (const Segment& s : scenario->segments_)
        scenario->unplugs_per_cycle_ += s.unplugged ? 1 : 0;
    return scenario;
}

Scenario::State Scenario::At(uint64_t frame) const {
    State state;
    const uint64_t total = uint64_t(cycle_) * repeats_;
    if (cycle_ > 0 && (repeats_ == 0 || frame < total)) {
        state.cycle = frame / cycle_;
        state.local = frame % cycle_;
        const auto it =
            std::upper_bound(segments_.begin(), segments_.end(), state.local,
                             [](uint64_t local, const Segment& s) { return local < s.end; });
        state.segment = &*it;  // segments cover the cycle, so `it` is valid
        state.start = state.cycle * cycle_ + it->start;
        return state;
    }
    state.segment = &tail_;
    state.cycle = repeats_ > 0 ? repeats_ - 1 : 0;
    state.local = frame - state.cycle * cycle_;
    state.start = total;
    return state;
}

uint64_t Scenario::UnplugsUpTo(uint64_t frame) const {
    if (unplugs_per_cycle_ == 0)
        return 0;
    const uint64_t cycle = frame / cycle_;
    if (repeats_ != 0 && cycle >= repeats_)
        return uint64_t(repeats_) * unplugs_per_cycle_;
    uint64_t count = cycle * unplugs_per_cycle_;
    const uint64_t local = frame % cycle_;
    for (const Segment& s : segments_)
        count += s.unplugged && s.start <= local ? 1 : 0;
    return count;
}

}  // namespace scanner
}  // namespace kr7sim
