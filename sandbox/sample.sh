# shellcheck shell=bash
