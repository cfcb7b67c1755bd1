#pragma once

#include "tests/fuzz/Target.h"

#include <random>

/// Makes inputs out of a corpus. What comes out depends on the seed and the input's number alone.
class Mutator {
public:
    static constexpr std::size_t maxInput = 64 * 1024; ///< bytes

    /// Every second input is made of one of `good`, unless there is none.
    Mutator(Fuzz::Grammar grammar, std::vector<Fuzz::Input> corpus, std::vector<Fuzz::Input> good, std::uint64_t seed)
        : m_grammar(std::move(grammar)), m_corpus(std::move(corpus)), m_good(std::move(good)), m_seed(seed)
    {}
    Fuzz::Input make(std::uint64_t number);

private:
    using Change = void (Mutator::*)(Fuzz::Input& input);

    std::size_t below(std::size_t bound) { return bound == 0 ? 0 : m_random() % bound; }
    Change anyChange();
    const Fuzz::Input& another() { return m_corpus[below(m_corpus.size())]; }
    std::string word();

    void flipBit(Fuzz::Input& input);
    void changeByte(Fuzz::Input& input);
    void putInteger(Fuzz::Input& input);
    void insertBytes(Fuzz::Input& input);
    void removeBytes(Fuzz::Input& input);
    void repeatBytes(Fuzz::Input& input);
    void truncate(Fuzz::Input& input);
    void splice(Fuzz::Input& input);

    void changeRecords(Fuzz::Input& input);
    void replaceText(Fuzz::Input& input);  // MessagePack
    void replaceToken(Fuzz::Input& input); // text and XML
    void changeElements(Fuzz::Input& input);
    void nest(Fuzz::Input& input);
    void insertWord(Fuzz::Input& input);
    void replaceContent(Fuzz::Input& input);

    Fuzz::Grammar m_grammar;
    std::vector<Fuzz::Input> m_corpus;
    std::vector<Fuzz::Input> m_good;
    std::uint64_t m_seed;
    std::mt19937_64 m_random;
};
