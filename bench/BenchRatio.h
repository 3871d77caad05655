// Shared by the benchmark programs: a reporter that keeps the median real time of every
// benchmark, and the line that compares two of them.
#ifndef BENCHRATIO_H
#define BENCHRATIO_H

#include <benchmark/benchmark.h>

#include <cstdio>
#include <iostream>
#include <map>
#include <string>
#include <unistd.h>
#include <vector>

// Prints as usual and keeps, per benchmark function and argument, the median real time of its
// repetitions (or the time of its single run when it is not repeated).
class MedianReporter : public benchmark::ConsoleReporter {
public:
    // Colour only on a terminal, so that logs and pipes get plain text.
    MedianReporter() : ConsoleReporter(isatty(fileno(stdout)) ? OO_ColorTabular : OO_Tabular) {}

    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            std::string name = run.run_name.function_name;
            if (!run.run_name.args.empty())
                name += "/" + run.run_name.args; // as "BM_Name/65536"
            if (run.run_type == Run::RT_Aggregate && run.aggregate_name == "median")
                medians[name] = run.GetAdjustedRealTime();
            else if (run.run_type == Run::RT_Iteration && run.repetitions <= 1)
                medians[name] = run.GetAdjustedRealTime();
        }
        ConsoleReporter::ReportRuns(runs);
    }
    std::map<std::string, double> medians;
};

// Parses the command line and runs the selected benchmarks through `reporter`; false when an
// argument is not understood (the program then exits with 1).
inline bool runBenchmarks(int& argc, char** argv, MedianReporter& reporter) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return false;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return true;
}

// Prints `what`, the two names joined by `joint` and the ratio of their medians (`over` by
// `under`), and whether it meets `target` (none when 0) from below or from above.
inline void printRatio(const MedianReporter& reporter, const char* subject, const char* baseline,
                       const char* over, const char* under, const char* joint, double target,
                       bool atLeast, const char* what) {
    const auto o = reporter.medians.find(over);
    const auto u = reporter.medians.find(under);
    if (o == reporter.medians.end() || u == reporter.medians.end())
        return; // filtered out
    const double ratio = o->second / u->second;
    std::cout << what << ": " << subject << joint << baseline << " = " << ratio;
    if (target > 0)
        std::cout << " (target " << (atLeast ? ">= " : "<= ") << target << ", "
                  << ((atLeast ? ratio >= target : ratio <= target) ? "met" : "NOT met") << ")";
    std::cout << "\n";
}

// Prints how many times faster `subject` is than `baseline` (their median times divided:
// above 1 means faster), against a target given as the least acceptable such figure (none when
// the target is 0).
inline void printSpeedRatio(const MedianReporter& reporter, const char* subject,
                            const char* baseline, double target, const char* what) {
    printRatio(reporter, subject, baseline, baseline, subject, " vs ", target, true, what);
}

// Prints how many times the baseline's median time `subject` takes (1.0 is parity, lower is
// better), against a target given as the largest acceptable such figure (none when it is 0).
inline void printCost(const MedianReporter& reporter, const char* subject, const char* baseline,
                      double target, const char* what) {
    printRatio(reporter, subject, baseline, subject, baseline, " / ", target, false, what);
}

#endif
