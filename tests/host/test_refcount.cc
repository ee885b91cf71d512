// Reference counts, the intrusive smart pointer and per-plug-in singletons.
#include <atomic>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "qzfi/refcount.h"

using namespace qzfi_pdk_4_4;

namespace {

struct Counted : public virtual CFiRefCount {
  explicit Counted(int* destroyed) : m_destroyed(destroyed) {}
  ~Counted() override { ++*m_destroyed; }
  int* m_destroyed;
};

struct Derived : public Counted {
  using Counted::Counted;
};

TEST(SmartPtr, CopiesCountAndTheLastReleaseDestroys) {
  int destroyed = 0;
  CFiSmartPtr<Counted> first(new Counted(&destroyed));
  EXPECT_EQ(first->getCount(), 1);
  {
    CFiSmartPtr<Counted> second(first);
    CFiSmartPtr<Counted> third;
    third = second;
    EXPECT_EQ(first->getCount(), 3);
    EXPECT_TRUE(second == first);
  }
  EXPECT_EQ(first->getCount(), 1);
  EXPECT_EQ(destroyed, 0);
  first.release();
  EXPECT_EQ(destroyed, 1);
  EXPECT_FALSE(first);
  first.release();
  EXPECT_EQ(destroyed, 1);
}

TEST(SmartPtr, MoveKeepsTheCount) {
  int destroyed = 0;
  CFiSmartPtr<Counted> first(new Counted(&destroyed));
  CFiSmartPtr<Counted> moved(std::move(first));
  EXPECT_EQ(moved->getCount(), 1);
  EXPECT_EQ(first.get(), nullptr);
  moved = CFiSmartPtr<Counted>();
  EXPECT_EQ(destroyed, 1);
}

TEST(SmartPtr, RawPointerWrappedAgainSharesTheCount) {
  int destroyed = 0;
  CFiSmartPtr<Counted> first(new Counted(&destroyed));
  Counted* raw = first.get();
  {
    CFiSmartPtr<Counted> again(raw);
    EXPECT_EQ(raw->getCount(), 2);
  }
  EXPECT_EQ(destroyed, 0);
  EXPECT_EQ(raw->getCount(), 1);
}

TEST(SmartPtr, DerivedConvertsToBase) {
  int destroyed = 0;
  CFiSmartPtr<Derived> derived(new Derived(&destroyed));
  CFiSmartPtr<Counted> base(derived);
  EXPECT_EQ(base->getCount(), 2);
  derived.release();
  base.release();
  EXPECT_EQ(destroyed, 1);
}

std::atomic<int> g_created{0};
std::atomic<int> g_destroyed{0};

struct Service : public virtual CFiRefCount {
  Service() { ++g_created; }
  ~Service() override { ++g_destroyed; }
};
struct TestPlugin {};
using ServiceSingleton = CFiContextSingleton<Service, TestPlugin>;

class SingletonTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ServiceSingleton::instance(true);
    g_created = 0;
    g_destroyed = 0;
  }
  void TearDown() override { ServiceSingleton::instance(true); }
};

TEST_F(SingletonTest, CreatedOnceAndTheSameInstanceTwice) {
  EXPECT_FALSE(ServiceSingleton::exists());
  CFiSmartPtr<Service> first = ServiceSingleton::instance();
  CFiSmartPtr<Service> second = ServiceSingleton::instance();
  EXPECT_TRUE(ServiceSingleton::exists());
  EXPECT_EQ(first.get(), second.get());
  EXPECT_EQ(g_created, 1);
  EXPECT_EQ(first->getCount(), 3);  // the singleton's own reference and two copies
}

TEST_F(SingletonTest, TeardownDropsItAndALaterCallRecreatesIt) {
  ServiceSingleton::instance();
  EXPECT_EQ(g_created, 1);
  EXPECT_FALSE(ServiceSingleton::instance(true));
  EXPECT_FALSE(ServiceSingleton::exists());
  EXPECT_EQ(g_destroyed, 1);

  CFiSmartPtr<Service> fresh = ServiceSingleton::instance();
  EXPECT_EQ(g_created, 2);
  EXPECT_TRUE(fresh);
}

TEST_F(SingletonTest, AHeldReferenceOutlivesTheTeardown) {
  CFiSmartPtr<Service> held = ServiceSingleton::instance();
  ServiceSingleton::instance(true);
  EXPECT_EQ(g_destroyed, 0);
  EXPECT_EQ(held->getCount(), 1);
  CFiSmartPtr<Service> fresh = ServiceSingleton::instance();
  EXPECT_NE(fresh.get(), held.get());
  held.release();
  EXPECT_EQ(g_destroyed, 1);
}

TEST_F(SingletonTest, ConcurrentFirstUseCreatesOne) {
  std::vector<std::thread> threads;
  std::vector<Service*> seen(8, nullptr);
  for (size_t i = 0; i < seen.size(); ++i) {
    threads.emplace_back([&seen, i] { seen[i] = ServiceSingleton::instance().get(); });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(g_created, 1);
  for (Service* service : seen) {
    EXPECT_EQ(service, seen[0]);
  }
}

}  // namespace
