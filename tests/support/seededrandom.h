#pragma once

#include <gtest/gtest.h>

#include <iostream>
#include <random>
#include <string>

// Random numbers of a test that can be had again. How is printed at once, as a test that hangs has no message.
class SeededRandom {
 public:
  SeededRandom() : m_seed(given() != 0 ? given() : std::random_device{}() % 99'999 + 1), m_engine(m_seed) {
    std::cout << Seed() << std::endl;
  }

  // The argument that repeats the test.
  std::string Seed() const { return "--gtest_random_seed=" + std::to_string(m_seed); }

  // From 0 to `most`.
  int UpTo(int most) { return std::uniform_int_distribution(0, most)(m_engine); }

 private:
  static unsigned given() { return static_cast<unsigned>(GTEST_FLAG_GET(random_seed)); }

  const unsigned m_seed;
  std::mt19937 m_engine;
};
