// Time by stage.
#pragma once

#include <chrono>
#include <deque>
#include <string>

namespace VexelAlgorithm::Apps {

/// Sums the wall-clock time of named stages, in the order in which they first ran. For one thread.
class StageClock {
public:
    struct Stage {
        std::string name;
        double milliseconds = 0.0;
        int runs = 0;
    };

    /// Runs the work and adds its time to the stage; hands its result on.
    template <class Work>
    auto time(const std::string& name, Work&& work) {
        const Lap lap(stage(name));
        return work();
    }

    /// Work that was timed elsewhere.
    void add(const std::string& name, double milliseconds) {
        Stage& known = stage(name);
        known.milliseconds += milliseconds;
        ++known.runs;
    }

    const std::deque<Stage>& stages() const { return _stages; }

private:
    class Lap {
    public:
        explicit Lap(Stage& stage) : _stage(stage), _start(std::chrono::steady_clock::now()) {}
        ~Lap() {
            const std::chrono::duration<double, std::milli> taken = std::chrono::steady_clock::now() - _start;
            _stage.milliseconds += taken.count();
            ++_stage.runs;
        }

    private:
        Stage& _stage;
        std::chrono::steady_clock::time_point _start;
    };

    Stage& stage(const std::string& name) {
        for (Stage& known : _stages) {
            if (known.name == name) return known;
        }
        return _stages.emplace_back(Stage{name, 0.0, 0});
    }

    std::deque<Stage> _stages;
};

}  // namespace VexelAlgorithm::Apps
