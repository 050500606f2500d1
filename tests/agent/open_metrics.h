/* A small check of OpenMetrics text, and what stands in it. */
#ifndef OPEN_METRICS_H
#define OPEN_METRICS_H

#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <regex.h>

class open_metrics_t
{
public:
    /* Each line that is not as it should be fails the test. */
    explicit open_metrics_t(const std::string &text)
    {
        std::istringstream lines(text);
        EXPECT_TRUE(text.ends_with("\n# EOF\n")) << "the end is marked";
        for (std::string line; std::getline(lines, line);) {
            EXPECT_FALSE(ended_) << line << " stands behind the end";
            const char *fault = line == "# EOF"         ? (ended_ = true, nullptr)
                                : line.starts_with("#") ? metadata_fault(line)
                                                        : sample_fault(line);
            if (fault)
                ADD_FAILURE() << line << ": " << fault;
        }
        EXPECT_TRUE(open_buckets_.empty()) << open_buckets_.begin()->first << " has no +Inf";
        EXPECT_EQ(unchecked_counts_.size(), 0u) << "counts without buckets";
    }
    bool has(const std::string &series) const
    {
        return samples_.count(series) != 0;
    }
    double value(const std::string &series) const
    {
        const auto found = samples_.find(series);
        EXPECT_NE(found, samples_.end()) << series << " is missing";
        return found == samples_.end() ? -1 : found->second;
    }

private:
    /* The line and its parenthesized parts, as regcomp(3) counts them; none: it is of another form.
     * (The standard library's expressions do not compile without warnings under a sanitizer.) */
    static std::vector<std::string> parts_of(const std::string &line, const std::string &form)
    {
        regex_t compiled;
        EXPECT_EQ(regcomp(&compiled, ("^" + form + "$").c_str(), REG_EXTENDED), 0) << form;
        std::vector<regmatch_t> found(compiled.re_nsub + 1);
        std::vector<std::string> parts;
        if (regexec(&compiled, line.c_str(), found.size(), found.data(), 0) == 0)
            for (const regmatch_t &part : found)
                parts.push_back(part.rm_so < 0 ? ""
                                               : line.substr((size_t)part.rm_so,
                                                             (size_t)(part.rm_eo - part.rm_so)));
        regfree(&compiled);
        return parts;
    }
    const char *metadata_fault(const std::string &line)
    {
        const auto m = parts_of(line, "# (TYPE|UNIT|HELP) ([a-z_:][a-z0-9_:]*) (.+)");
        if (m.empty())
            return "no metadata";
        if (m[1] == "TYPE") {
            if (!families_.insert(m[2]).second)
                return "the family is there already";
            family_ = m[2];
            type_ = m[3];
            sampled_ = false;
            static const std::set<std::string> types = {"counter", "gauge", "histogram", "info"};
            return types.count(type_) ? nullptr : "an unknown type";
        }
        if (m[2] != family_ || sampled_)
            return "metadata of another family, or behind a sample";
        if (m[1] == "UNIT" && !family_.ends_with("_" + m[3]))
            return "the name does not end with the unit";
        return nullptr;
    }
    const char *sample_fault(const std::string &line)
    {
        static const std::string label = "[a-z_]+=\"[^\"\\]*\"";
        const auto m = parts_of(line, "([a-z_:][a-z0-9_:]*)(\\{(" + label + "(," + label +
                                          ")*)\\})? ([0-9]+(\\.[0-9]+)?)");
        if (m.empty())
            return "no sample";
        const std::string name = m[1], labels = m[3];
        const double number = std::stod(m[5]);
        sampled_ = true;
        if (!samples_.emplace(name + m[2], number).second)
            return "the series is there already";
        if (!name.starts_with(family_))
            return "a sample of another family";
        const std::string suffix = name.substr(family_.size());
        if (type_ == "histogram")
            return histogram_fault(suffix, labels, number);
        if (type_ == "info")
            return suffix == "_info" && number == 1 ? nullptr : "an info is 1 and ends with _info";
        return suffix == (type_ == "counter" ? "_total" : "") ? nullptr : "another suffix is due";
    }
    /* Buckets rise up to +Inf, which is the count. */
    const char *histogram_fault(const std::string &suffix, std::string labels, double number)
    {
        if (suffix == "_sum")
            return nullptr;
        if (suffix == "_count") {
            const bool same =
                unchecked_counts_.count(labels) && unchecked_counts_[labels] == number;
            unchecked_counts_.erase(labels);
            return same ? nullptr : "it is not the bucket +Inf";
        }
        const size_t at = labels.rfind("le=\"");
        if (suffix != "_bucket" || at == std::string::npos)
            return "another suffix is due, or le";
        const std::string bound = labels.substr(at + 4, labels.size() - at - 5);
        labels.erase(at ? at - 1 : 0);
        const double le = bound == "+Inf" ? HUGE_VAL : std::stod(bound);
        const auto last = open_buckets_.find(labels);
        if (last != open_buckets_.end() &&
            (last->second.first >= le || last->second.second > number))
            return "buckets do not rise";
        open_buckets_[labels] = {le, number};
        if (le == HUGE_VAL) {
            unchecked_counts_[labels] = number;
            open_buckets_.erase(labels);
        }
        return nullptr;
    }

    std::string family_, type_;
    bool sampled_ = false, ended_ = false;
    std::set<std::string> families_;
    std::map<std::string, double> samples_;
    std::map<std::string, std::pair<double, double>> open_buckets_; /* by labels */
    std::map<std::string, double> unchecked_counts_;
};

#endif
