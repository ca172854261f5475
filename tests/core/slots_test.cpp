// SPDX-License-Identifier: Apache-2.0
// The order of the virtual functions: part of the ABI of the library.

#include "support/suite/slots.h"

#include <oruio/fdadapter.h>
#include <oruio/fs.h>
#include <oruio/fssmb.h>
#include <oruio/fsswitch.h>

#include <gtest/gtest.h>

namespace oru::io {

using test::slotOf;

// Virtual destructors take two entries of the table.
constexpr int destructor = 2;

TEST(Slots, FS_SlotsAreInOrder) {
    int slot = 0;
    EXPECT_EQ(slotOf(&FS::addWatch), slot++);
    EXPECT_EQ(slotOf(&FS::remWatch), slot++);
    EXPECT_EQ(slotOf(&FS::open), slot++);
    EXPECT_EQ(slotOf(&FS::opendir), slot++);
    EXPECT_EQ(slotOf(&FS::lstat), slot++);
    EXPECT_EQ(slotOf(&FS::stat), slot++);
    EXPECT_EQ(slotOf(&FS::statfs), slot++);
    EXPECT_EQ(slotOf(&FS::link), slot++);
    EXPECT_EQ(slotOf(&FS::unlink), slot++);
    EXPECT_EQ(slotOf(&FS::mkdir), slot++);
    EXPECT_EQ(slotOf(&FS::rmdir), slot++);
    EXPECT_EQ(slotOf(&FS::rename), slot++);
    EXPECT_EQ(slotOf(&FS::sync), slot++);
    EXPECT_EQ(slotOf(&FS::getxattr), slot++);
    EXPECT_EQ(slotOf(&FS::setxattr), slot++);
    EXPECT_EQ(slotOf(&FS::removexattr), slot++);
    EXPECT_EQ(slotOf<int (FS::*)(QString, QVector<QString>&)>(&FS::listxattr), slot++);
    EXPECT_EQ((slotOf<int (FS::*)(QString, char*, unsigned int)>(&FS::listxattr)), slot++);
    EXPECT_EQ(slotOf(&FS::symlink), slot++);
    EXPECT_EQ(slotOf<int (FS::*)(QString, QString&)>(&FS::readlink), slot++);
    EXPECT_EQ((slotOf<int (FS::*)(QString, char*, unsigned int)>(&FS::readlink)), slot++);
    EXPECT_EQ(slotOf(&FS::truncate), slot++);
    EXPECT_EQ(slotOf(&FS::chmod), slot++);
    EXPECT_EQ(slotOf(&FS::ioctl), slot++);
    EXPECT_EQ(slotOf(&FS::type), slot++);
    EXPECT_EQ(slot, 25);
}

TEST(Slots, FSSwitch_SlotsFollowFSAndItsDestructor) {
    int slot = 25 + destructor;
    EXPECT_EQ(slotOf(&FSSwitch::add), slot++);
    EXPECT_EQ(slotOf(&FSSwitch::remove), slot++);
    EXPECT_EQ(slotOf(&FSSwitch::getFS), slot++);
    EXPECT_EQ(slotOf(&FSSwitch::getMountPoints), slot++);
}

TEST(Slots, Smb2FS_SlotsFollowFSAndItsDestructor) {
    int slot = 25 + destructor;
    EXPECT_EQ(slotOf(&Smb2FS::connect), slot++);
    EXPECT_EQ(slotOf(&Smb2FS::disconnect), slot++);
    EXPECT_EQ(slotOf(&Smb2FS::isConnected), slot++);
    EXPECT_EQ(slotOf(&Smb2FS::getDialect), slot++);
}

TEST(Slots, File_SlotsAreInOrder) {
    int slot = 0;
    EXPECT_EQ(slotOf(&File::read), slot++);
    EXPECT_EQ(slotOf(&File::write), slot++);
    EXPECT_EQ(slotOf(&File::pread), slot++);
    EXPECT_EQ(slotOf(&File::pwrite), slot++);
    EXPECT_EQ(slotOf(&File::lseek), slot++);
    EXPECT_EQ(slotOf(&File::fstat), slot++);
    EXPECT_EQ(slotOf(&File::ftruncate), slot++);
    EXPECT_EQ(slotOf(&File::fsync), slot++);
    EXPECT_EQ(slotOf(&File::fdatasync), slot++);
    EXPECT_EQ(slotOf(&File::fcntl), slot++);
    EXPECT_EQ(slotOf(&File::flock), slot++);
    EXPECT_EQ(slotOf(&File::fchmod), slot++);
    EXPECT_EQ(slotOf(&File::close), slot++);
    EXPECT_EQ(slotOf(&File::ioctl), slot++);
    EXPECT_EQ(slotOf(&File::readAll), slot++);
    EXPECT_EQ(slotOf(&File::type), slot++);
    EXPECT_EQ(slot, 16);
}

TEST(Slots, Directory_SlotsAreInOrder) {
    int slot = 0;
    EXPECT_EQ(slotOf(&Directory::readdir), slot++);
    EXPECT_EQ(slotOf(&Directory::rewinddir), slot++);
    EXPECT_EQ(slotOf(&Directory::closedir), slot++);
    EXPECT_EQ(slotOf(&Directory::ioctl), slot++);
    EXPECT_EQ(slotOf(&Directory::type), slot++);
    EXPECT_EQ(slot, 5);
}

TEST(Slots, Smb2Dir_SlotsFollowDirectoryAndItsDestructor) {
    EXPECT_EQ(slotOf(&Smb2Dir::isOpen), 5 + destructor);
}

// The next virtual function of a derived class takes the slot after the destructors.
template <class Base>
struct Extended : Base {
    virtual void added();
};

TEST(Slots, Destructors_AreLast) {
    EXPECT_EQ(slotOf(&Extended<FS>::added), 25 + destructor);
    EXPECT_EQ(slotOf(&Extended<File>::added), 16 + destructor);
    EXPECT_EQ(slotOf(&Extended<Directory>::added), 5 + destructor);
    EXPECT_EQ(slotOf(&Extended<FSSwitch>::added), 29 + destructor);
    EXPECT_EQ(slotOf(&Extended<FDAdapter>::added), 38 + destructor);
}

TEST(Slots, FDAdapter_SlotsAreInOrder) {
    int slot = 0;
    EXPECT_EQ(slotOf(&FDAdapter::lstat), slot++);
    EXPECT_EQ(slotOf(&FDAdapter::stat), slot++);
    EXPECT_EQ(slotOf(&FDAdapter::statfs), slot++);
    EXPECT_EQ(slotOf(&FDAdapter::link), slot++);
    EXPECT_EQ(slotOf(&FDAdapter::unlink), slot++);
    EXPECT_EQ(slotOf(&FDAdapter::mkdir), slot++);
    EXPECT_EQ(slotOf(&FDAdapter::rmdir), slot++);
    EXPECT_EQ(slotOf(&FDAdapter::rename), slot++);
    EXPECT_EQ(slotOf(&FDAdapter::sync), slot++);
    EXPECT_EQ(slotOf(&FDAdapter::getxattr), slot++);
    EXPECT_EQ(slotOf(&FDAdapter::setxattr), slot++);
    EXPECT_EQ(slotOf(&FDAdapter::removexattr), slot++);
    EXPECT_EQ(slotOf(&FDAdapter::listxattr), slot++);
    EXPECT_EQ(slotOf(&FDAdapter::symlink), slot++);
    EXPECT_EQ(slotOf(&FDAdapter::readlink), slot++);
    EXPECT_EQ(slotOf(&FDAdapter::truncate), slot++);
    EXPECT_EQ(slotOf(&FDAdapter::chmod), slot++);
    EXPECT_EQ(slotOf(&FDAdapter::opendir), slot++);
    EXPECT_EQ(slotOf(&FDAdapter::readdir), slot++);
    EXPECT_EQ(slotOf(&FDAdapter::rewinddir), slot++);
    EXPECT_EQ(slotOf(&FDAdapter::closedir), slot++);
    EXPECT_EQ(slotOf(&FDAdapter::open), slot++);
    EXPECT_EQ(slotOf(&FDAdapter::creat), slot++);
    EXPECT_EQ(slotOf(&FDAdapter::read), slot++);
    EXPECT_EQ(slotOf(&FDAdapter::write), slot++);
    EXPECT_EQ(slotOf(&FDAdapter::pread), slot++);
    EXPECT_EQ(slotOf(&FDAdapter::pwrite), slot++);
    EXPECT_EQ(slotOf(&FDAdapter::lseek), slot++);
    EXPECT_EQ(slotOf(&FDAdapter::fstat), slot++);
    EXPECT_EQ(slotOf(&FDAdapter::ftruncate), slot++);
    EXPECT_EQ(slotOf(&FDAdapter::fsync), slot++);
    EXPECT_EQ(slotOf(&FDAdapter::fdatasync), slot++);
    EXPECT_EQ(slotOf(&FDAdapter::fcntl), slot++);
    EXPECT_EQ(slotOf(&FDAdapter::flock), slot++);
    EXPECT_EQ(slotOf(&FDAdapter::fchmod), slot++);
    EXPECT_EQ(slotOf(&FDAdapter::close), slot++);
    EXPECT_EQ(slotOf(&FDAdapter::ioctl), slot++);
    EXPECT_EQ(slotOf(&FDAdapter::type), slot++);
    EXPECT_EQ(slot, 38);
}

} // namespace oru::io
