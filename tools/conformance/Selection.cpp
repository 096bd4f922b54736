// SPDX-License-Identifier: Apache-2.0
#include "Selection.h"

#include <algorithm>
#include <sstream>

#include "text/Suggest.h"

namespace conformance {

namespace {

std::vector<std::string> wordsOf(const std::string& text)
{
    std::istringstream stream(text);
    std::vector<std::string> words;
    for (std::string word; stream >> word;)
        words.push_back(word);
    return words;
}

bool holds(const std::vector<std::string>& words, const std::string& word)
{
    return std::find(words.begin(), words.end(), word) != words.end();
}

}  // namespace

std::vector<const Promise*> selectPromises(const std::string& only)
{
    std::vector<const Promise*> selected;
    for (const Promises* promises : {&logPromises(), &requestPromises(), &networkPromises(), &powerPromises(),
                                     &busPromises(), &servicePromises()}) {
        for (const Promise& promise : *promises) {
            const bool isWanted = only == promise.header || std::string(promise.text).find(only) != std::string::npos;
            if (isWanted) selected.push_back(&promise);
        }
    }
    return selected;
}

// Each word that no promise has is replaced by the nearest that one has.
std::string suggestSelection(const std::string& only)
{
    std::vector<std::string> headers;
    std::vector<std::string> words;
    for (const Promise* promise : selectPromises("")) {
        headers.emplace_back(promise->header);
        for (const std::string& word : wordsOf(promise->text))
            words.push_back(word);
    }
    std::string header = wfoal::nearest(only, headers);
    if (!header.empty()) return header;
    std::string text;
    for (const std::string& word : wordsOf(only))
        text += (text.empty() ? "" : " ") + (holds(words, word) ? word : wfoal::nearest(word, words));
    return selectPromises(text).empty() ? "" : text;
}

}  // namespace conformance
