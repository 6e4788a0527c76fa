# SPDX-License-Identifier: Apache-2.0
# Writes the software bill of materials as an SPDX 2.3 document in JSON. RuneldSbom.cmake runs this script
# and writes its settings. The document depends on the built files and the settings only.
#
#   cmake -DSETTINGS=FILE -DDOCUMENT=FILE -P sbom.cmake
cmake_minimum_required(VERSION 3.25)
include("${SETTINGS}")
set(ENV{LC_ALL} C)  # readelf translates its output

# Which library a shared object belongs to. An unknown one is listed by its name.
function(library_of soname result)
  if(soname MATCHES "^lib(c|m|pthread|dl|rt|resolv)\\.so|^ld-")
    set(library "${LIBC}")
  elseif(soname MATCHES "^libstdc\\+\\+\\.")
    set(library libstdc++)
  elseif(soname MATCHES "^libc\\+\\+(abi)?\\.")
    set(library libc++)
  elseif(soname MATCHES "^libgcc_s\\.")
    set(library libgcc)
  elseif(soname MATCHES "^libedit\\.")
    set(library libedit)
  elseif(soname MATCHES "^libz\\.")
    set(library zlib)
  elseif(soname MATCHES "^libbz2\\.")
    set(library bzip2)
  elseif(soname MATCHES "^lib(ssl|crypto)\\.")
    set(library OpenSSL)
  elseif(soname MATCHES "^libsoci_")
    set(library SOCI)
  elseif(soname MATCHES "^libsqlite3\\.")
    set(library SQLite)
  elseif(soname MATCHES "^libprometheus-cpp-")
    set(library prometheus-cpp)
  elseif(soname MATCHES "^librunel\\.")
    set(library librunel)
  else()
    set(library "${soname}")
  endif()
  set(${result} "${library}" PARENT_SCOPE)
endfunction()

# An identifier has letters, digits, dots and hyphens.
function(identifier kind name result)
  string(REPLACE "+" "p" name "${name}")
  string(REGEX REPLACE "[^A-Za-z0-9.-]" "-" name "${name}")
  set(${result} "SPDXRef-${kind}-${name}" PARENT_SCOPE)
endfunction()

# Appends an object to the array @p array: append(ARRAY KEY VALUE ...). A value that begins with "=" is
# JSON, another one is a text.
function(append array)
  set(pairs "")
  while(ARGN)
    list(POP_FRONT ARGN key value)
    if(value MATCHES "^=")
      string(SUBSTRING "${value}" 1 -1 value)
    else()
      string(REGEX REPLACE "([\"\\])" "\\\\\\1" value "${value}")
      set(value "\"${value}\"")
    endif()
    string(APPEND pairs ",\n      \"${key}\": ${value}")
  endwhile()
  string(SUBSTRING "${pairs}" 1 -1 pairs)
  set(text "${${array}}")
  if(text)
    string(APPEND text ",")
  endif()
  set(${array} "${text}\n    {${pairs}\n    }" PARENT_SCOPE)
endfunction()

macro(relate one relation other)
  if("${ARGN}" STREQUAL "")
    append(relationships spdxElementId "${one}" relationshipType ${relation} relatedSpdxElement "${other}")
  else()
    append(relationships spdxElementId "${one}" relationshipType ${relation} relatedSpdxElement "${other}"
      comment "${ARGN}")
  endif()
endmacro()

set(packages "")
set(files "")
set(relationships "")
set(products "")
set(used "")  # libraries
set(all_sums "")

foreach(line IN LISTS FILES)
  string(REPLACE "|" ";" fields "${line}")
  list(GET fields 0 product)
  list(GET fields 1 path)
  list(GET fields 2 contains)
  if(NOT product IN_LIST products)
    list(APPEND products "${product}")
    set(sums_of_${product} "")
  endif()
  get_filename_component(name "${path}" NAME)
  file(SHA1 "${path}" sha1)
  file(SHA256 "${path}" sha256)
  list(APPEND sums_of_${product} "${sha1}")
  string(APPEND all_sums "${sha256}")
  execute_process(COMMAND "${READELF}" --wide --dynamic --notes "${path}"
    OUTPUT_VARIABLE elf ERROR_QUIET RESULT_VARIABLE status)
  if(NOT status EQUAL 0 OR elf STREQUAL "")
    message(FATAL_ERROR "${READELF} cannot read ${path}")
  endif()
  set(comment "The file as it was linked, before it is stripped.")
  if(name MATCHES "\\.a$")
    set(comment "The archive as it was built.")
  elseif(elf MATCHES "Build ID: ([0-9a-f]+)")
    string(APPEND comment " Build ID: ${CMAKE_MATCH_1}.")
  endif()
  identifier(File "${name}" file)
  append(files SPDXID "${file}" fileName "./${name}" fileTypes "=[\"BINARY\"]"
    checksums "=[{\"algorithm\": \"SHA1\", \"checksumValue\": \"${sha1}\"}, {\"algorithm\": \"SHA256\", \"checksumValue\": \"${sha256}\"}]"
    licenseConcluded Apache-2.0 licenseInfoInFiles "=[\"Apache-2.0\"]"
    copyrightText "The runeld authors" comment "${comment}")
  identifier(Package "${product}" package)
  relate("${package}" CONTAINS "${file}")

  string(REGEX MATCHALL "\\(NEEDED\\)[^\n]*\\[[^]\n]+\\]" needed "${elf}")
  set(linked "")
  foreach(entry IN LISTS needed)
    string(REGEX REPLACE ".*\\[(.*)\\]" "\\1" soname "${entry}")
    library_of("${soname}" library)
    list(APPEND linked "${library}")
    identifier(Package "${library}" other)
    relate("${file}" DYNAMIC_LINK "${other}" "${soname}")
  endforeach()
  string(REPLACE "," ";" contains "${contains}")
  if(NOT name MATCHES "\\.a$")  # what each program needs and does not link is inside of it
    foreach(library IN LISTS RUNTIME)
      if(NOT library IN_LIST linked)
        list(APPEND contains "${library}")
      endif()
    endforeach()
  endif()
  list(APPEND used ${linked})
  foreach(library IN LISTS contains)
    list(APPEND used "${library}")
    identifier(Package "${library}" other)
    relate("${file}" STATIC_LINK "${other}")
  endforeach()
endforeach()

foreach(product IN LISTS products)
  set(sums "${sums_of_${product}}")
  list(SORT sums)
  list(JOIN sums "" sums)
  string(SHA1 code "${sums}")
  set(purpose APPLICATION)
  if(product STREQUAL librunel)
    set(purpose LIBRARY)
  endif()
  identifier(Package "${product}" package)
  append(packages SPDXID "${package}" name "${product}" versionInfo "${VERSION}"
    supplier "Organization: The runeld authors" downloadLocation NOASSERTION
    filesAnalyzed =true packageVerificationCode "={\"packageVerificationCodeValue\": \"${code}\"}"
    licenseConcluded Apache-2.0 licenseDeclared Apache-2.0 licenseInfoFromFiles "=[\"Apache-2.0\"]"
    copyrightText "The runeld authors" primaryPackagePurpose ${purpose})
  relate(SPDXRef-DOCUMENT DESCRIBES "${package}")
endforeach()

list(REMOVE_DUPLICATES used)
list(SORT used)
foreach(library IN LISTS used)
  if(library IN_LIST products)
    continue()
  endif()
  set(licence NOASSERTION)
  set(version "-")
  foreach(line IN LISTS LIBRARIES)
    string(REPLACE "|" ";" fields "${line}")
    list(GET fields 0 name)
    if(name STREQUAL library)
      list(GET fields 1 licence)
      list(GET fields 2 version)
    endif()
  endforeach()
  identifier(Package "${library}" package)
  set(info "")
  if(NOT version STREQUAL "-")
    set(info versionInfo "${version}" externalRefs "=[{\"referenceCategory\": \"PACKAGE-MANAGER\", \"referenceType\": \"purl\", \"referenceLocator\": \"pkg:generic/${library}@${version}\"}]")
  endif()
  append(packages SPDXID "${package}" name "${library}" ${info} downloadLocation NOASSERTION
    filesAnalyzed =false licenseConcluded NOASSERTION licenseDeclared "${licence}"
    copyrightText NOASSERTION primaryPackagePurpose LIBRARY
    comment "The version that the build used. Another one with the same interface may be installed.")
endforeach()

# The first that there is of SOURCE_DATE_EPOCH, the commit, and the time of the file, which a release tarball
# sets to that of the commit. Only a clone is asked for its commit.
if(NOT DEFINED ENV{SOURCE_DATE_EPOCH} AND EXISTS "${SOURCE_DIR}/.git")
  execute_process(COMMAND git -c safe.directory=* -C "${SOURCE_DIR}" log -1 --format=%ct
    OUTPUT_VARIABLE epoch ERROR_QUIET OUTPUT_STRIP_TRAILING_WHITESPACE)
  if(epoch)
    set(ENV{SOURCE_DATE_EPOCH} "${epoch}")
  endif()
endif()
if(DEFINED ENV{SOURCE_DATE_EPOCH})
  string(TIMESTAMP created "%Y-%m-%dT%H:%M:%SZ" UTC)
else()
  file(TIMESTAMP "${SOURCE_DIR}/CMakeLists.txt" created "%Y-%m-%dT%H:%M:%SZ" UTC)
endif()

# The name of the document is unique if its content is.
string(UUID uuid NAMESPACE 6ba7b811-9dad-11d1-80b4-00c04fd430c8 TYPE SHA1
  NAME "${VERSION}${all_sums}${packages}${relationships}")
set(text "{
  \"spdxVersion\": \"SPDX-2.3\",
  \"dataLicense\": \"CC0-1.0\",
  \"SPDXID\": \"SPDXRef-DOCUMENT\",
  \"name\": \"runeld-${VERSION}\",
  \"documentNamespace\": \"urn:uuid:${uuid}\",
  \"creationInfo\": {
    \"created\": \"${created}\",
    \"creators\": [\"Organization: The runeld authors\", \"Tool: runeld-sbom-${VERSION}\"]
  },
  \"packages\": [${packages}
  ],
  \"files\": [${files}
  ],
  \"relationships\": [${relationships}
  ]
}
")
string(JSON parsed ERROR_VARIABLE error GET "${text}" spdxVersion)
if(error)
  message(FATAL_ERROR "The software bill of materials is not valid JSON: ${error}")
endif()
file(WRITE "${DOCUMENT}" "${text}")
