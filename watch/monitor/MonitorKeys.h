#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>

namespace ParvaneWatch {

/** What the keys of the screen do: the hands of parvane-watch, asked for what they need. No terminal. */
class MonitorKeys
{
public:
    static constexpr int kEnter = '\n';
    static constexpr int kEscape = 27;
    static constexpr int kErase = 127;

    /** What is to be done now. */
    struct Wish
    {
        bool mQuit = false;
        /** A request to the service. */
        std::optional<nlohmann::json> mRequest;
    };

    /** Takes one key. @param status  as it is now, for what goes back and forth */
    Wish Take(int key, const nlohmann::json &status);

    /** The question that is being asked and what has been typed; empty when there is none. */
    [[nodiscard]] std::string Prompt() const;

    [[nodiscard]] bool ShowsHelp() const { return mShowsHelp; }

private:
    Wish Begin(int key, const nlohmann::json &status);
    /** A key that answers with one letter. */
    Wish Choose(int key) const;
    [[nodiscard]] Wish Finish() const;
    /** What puts the watch on the wrist or takes it off. @param rate  the last one read, or null */
    nlohmann::json OtherWorn(const nlohmann::json &rate);

    /** The key whose question is open; 0 for none. */
    int mAsking = 0;
    std::string mTyped;
    bool mShowsHelp = false;
    /** Of the last change of the wrist: the heart rate that it found, as text, and what it was. */
    std::string mRateBefore = "null";
    bool mWantsWorn = false;
};

} // namespace ParvaneWatch
