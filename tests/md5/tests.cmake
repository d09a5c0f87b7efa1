find_package(OpenSSL REQUIRED COMPONENTS Crypto)

blobring_test(NAME md5_test SOURCES md5/MD5Test.cpp LIBS blobring_md5 OpenSSL::Crypto)
