<?php

declare(strict_types=1);

namespace Quorvex\Authority;

/** A channel request that never reaches an action: the status of its reply tells so. */
final class MalformedRequest extends \RuntimeException
{
}
